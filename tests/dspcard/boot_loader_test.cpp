// The boot loader against a card that takes every byte at once, or does not: what goes over the
// ports, what is printed, and what load files may hold.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Console.h"
#include "DSPBootLoader.h"
#include "DirectIO.h"
#include "ScriptedCards.h"

namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;

constexpr int kReady = 0x20;
constexpr int kBusy = 0x01;

std::vector<int> bytesOf(std::initializer_list<int> words) {
    std::vector<int> bytes;
    for (const int word : words) {
        bytes.push_back(word >> 8);
        bytes.push_back(word & 0xFF);
    }
    return bytes;
}

const std::vector<int> kHeaderBytes = bytesOf({0x08AA, 0x7FFF, 0xF800, 0x0000, 0x0080});

class BootLoader : public testing::Test {
  protected:
    BootLoader() {
        const std::string pattern = testing::TempDir() + "bootXXXXXX";
        std::string name = pattern;
        folder = mkdtemp(name.data());
        std::filesystem::current_path(folder);
        DirectIO::getInstance().allowPortAccess();
        cards.onRead = [this](int port) { return port == base + 2 ? status() : 0u; };
        cards.onWrite = [this](int port, std::uint32_t value) { listen(port, value); };
        useCard(0x300, 4, 0);
    }
    ~BootLoader() override {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(folder);
    }

    void useCard(int basePort, unsigned channels, int board) {
        base = basePort;
        loader.init(static_cast<unsigned>(basePort), channels, board);
        forget();
    }

    std::uint32_t status() const {
        const bool refuses = static_cast<int>(takenBytes.size()) >= wantsBytes;
        const bool stuck = static_cast<int>(takenBytes.size()) > takesBytes;
        return static_cast<std::uint32_t>((refuses ? 0 : kReady) | (stuck ? kBusy : 0));
    }

    // Keeps the bytes that are strobed into the card.
    void listen(int port, std::uint32_t value) {
        lastWrite_us = cards.elapsed_us;
        if (port == base) {
            data = static_cast<int>(value);
        } else if (port == base + 2 && value == 0x0A) {
            takenBytes.push_back(data);
        }
    }

    void forget() {
        cards.accesses.clear();
        takenBytes.clear();
    }

    void write(const std::string& name, const std::string& content) const {
        std::ofstream(name, std::ios::binary) << content;
    }
    void writeLoadFile(const std::string& records) const {
        write("LOAD.TXT", "header\n\n" + records);
    }

    // Boots, and keeps what was printed.
    bool boot() {
        console.take();
        const bool booted = loader.bootload("LOAD.TXT");
        console.take();
        return booted;
    }

    ScriptedCards cards;
    DSPBootloader loader;
    std::vector<int> takenBytes;
    std::string folder;
    Console console;
    int base = 0;
    int data = -1;
    std::clock_t lastWrite_us = 0;
    int wantsBytes = 1 << 20;  // asks for that many bytes, then no more
    int takesBytes = 1 << 20;  // takes that many, then stays busy
};

TEST_F(BootLoader, StreamsHeaderAndSectionsHighByteFirst) {
    write("CODE.BIN", std::string("\x34\x12\xFF\xFF\x02\x00", 6));
    writeLoadFile("h0080 h0003 CODE.BIN code\n0F000 00002 CODE.BIN data\r\n");
    ASSERT_TRUE(boot());
    std::vector<int> expected = kHeaderBytes;
    for (const int byte :
         bytesOf({3, 0, 0x0080, 0x1234, 0xFFFF, 0x0002, 2, 0, 0xF000, 0x1234, 0xFFFF})) {
        expected.push_back(byte);
    }
    EXPECT_THAT(takenBytes, ElementsAreArray(expected));
    EXPECT_EQ("\n\n", console.out);
    EXPECT_EQ(
        "Bootload:LOAD.TXT\n"
        "BootLoader placing DSP in reset, port=782\n"
        "BootLoader placing DSP out of reset, port=770\n"
        "Boot Mode\nwait state reg\nbank switch reg\nextended entry\nentry\n"
        "Bootload opening file\n"
        "Attempt Boot Section - addr: 128 size: 3 sectionName: CODE.BIN\n"
        "Boot section succeeded: CODE.BIN Checksum: 4661\n"
        "Attempt Boot Section - addr: 61440 size: 2 sectionName: CODE.BIN\n"
        "Boot section succeeded: CODE.BIN Checksum: 4659\n",
        console.err);
    forget();
    EXPECT_TRUE(loader.startDSP());
    EXPECT_THAT(takenBytes, ElementsAreArray({0, 0}));
}

TEST_F(BootLoader, NeedsFivePortAccessesForAByte) {
    loader.bootByte(0x5A);
    const std::vector<PortAccess> handshake = {{false, 0x302, kReady},
                                               {true, 0x300, 0x5A},
                                               {true, 0x302, 0x0A},
                                               {false, 0x302, kReady},
                                               {true, 0x302, 0x1A}};
    EXPECT_EQ(handshake, cards.accesses);
}

TEST_F(BootLoader, ResetsAndWritesTheDefaultsOfEachCard) {
    struct Row {
        int base;
        unsigned channels;
        int board;
        std::vector<std::pair<int, int>> defaults;
    };
    const int cleared = 0x24;  // the status with bit 0 cleared
    cards.onRead = [](int) { return 0x25u; };
    for (const Row& row : {
             Row{0x300, 4, 0, {{2, cleared}, {4, 0}, {6, 1}, {8, 1}, {10, 1}, {12, 1}, {14, 2}}},
             Row{0x310, 4, 1, {{2, cleared}, {4, 0}, {6, 1}, {8, 1}, {10, 1}, {12, 1}, {14, 0}}},
             Row{0x300, 8, 0, {{2, cleared}, {4, 0}, {6, 0x11}, {8, 0x11}, {10, 0x11}, {12, 0x21}}},
             Row{0x310, 8, 1, {{2, cleared}, {4, 0}, {6, 0x11}, {8, 0x11}, {10, 0x11}, {14, 1}}},
         }) {
        useCard(row.base, row.channels, row.board);
        std::vector<PortAccess> expected;
        for (const auto& [offset, value] : row.defaults) {
            expected.push_back({true, row.base + offset, value});
        }
        loader.loadDefaults();
        EXPECT_EQ(expected, cards.writes());

        useCard(row.base, row.channels, row.board);
        cards.slept_us.clear();
        console.take();
        EXPECT_TRUE(loader.resetDSP(true));
        EXPECT_TRUE(loader.resetDSP(false));
        const std::vector<PortAccess> pulse = {
            {true, row.base + 14, 8}, {true, row.base + 2, 0x12}, {true, row.base + 2, 0x1A}};
        EXPECT_EQ(pulse, cards.accesses);
        EXPECT_THAT(cards.slept_us, testing::ElementsAre(100, 100));
        console.take();
        EXPECT_THAT(console.err,
                    HasSubstr("in reset, port=" + std::to_string(row.base + 14) + "\n"));
    }
}

TEST_F(BootLoader, GivesUpOnACardThatStopsAnsweringAtAnyByte) {
    write("CODE.BIN", "abcdefgh");
    writeLoadFile("h0080 h0004 CODE.BIN code\n");
    ASSERT_TRUE(boot());
    cards.accessTime_us = 50;  // 200 ms pass in fewer accesses
    const int allBytes = static_cast<int>(takenBytes.size());
    for (int byte = 0; byte < allBytes; ++byte) {
        for (const bool neverWanted : {true, false}) {
            wantsBytes = neverWanted ? byte : allBytes;
            takesBytes = neverWanted ? allBytes : byte;
            forget();
            EXPECT_FALSE(boot());
            EXPECT_EQ(neverWanted ? byte : byte + 1, static_cast<int>(takenBytes.size()));
            EXPECT_GT(cards.elapsed_us - lastWrite_us, 200'000);
            EXPECT_LT(cards.elapsed_us - lastWrite_us, 201'000);
            const bool inSection = byte >= static_cast<int>(kHeaderBytes.size());
            EXPECT_EQ(inSection,
                      console.err.find("Boot Section failed addr=0x0080\n") != std::string::npos);
        }
    }
    wantsBytes = takesBytes = allBytes + 2;
    forget();
    EXPECT_TRUE(boot());
}

TEST_F(BootLoader, TakesWhatLoadFilesMayHoldAndNamesWhatTheyMayNot) {
    write("FOUR.BIN", std::string("\1\0\2\0\3\0\4\0", 8));
    write("ODD.BIN", std::string("\1\0\2\0\3", 5));
    std::filesystem::create_directory("DIR.BIN");
    const std::string longName(32, 'N');
    const std::string addressProblem = "LOAD.TXT: record 1: address ";
    struct Row {
        std::string content;
        bool boots;
        int bytesAfterHeader;
        std::string line;
    };
    const Row rows[] = {
        {"a\nb\n", true, 0, ""},
        {"a\nb", false, 0, "Bootload opening file\n"},
        {"", false, 0, "Bootload opening file\n"},
        {"a\nb\nh1 h1 FOUR.BIN\n", true, 0, ""},
        {"a\nb\nh1 h1 FOUR.BIN c h2 h2 FOUR.BIN", true, 8, "addr: 1 size: 1 "},
        {"a\nb\n1234 00002\nFOUR.BIN\n\tc", true, 10, "addr: 564 size: 2 "},
        {"a\nb\nhFFFFF h0001 FOUR.BIN c", true, 8, "addr: 1048575 size: 1 "},
        {"a\nb\nh80 h0 FOUR.BIN c", true, 6, "Checksum: 0\n"},
        {"a\nb\nh80 h0 NONE.BIN c", false, 6, "Boot Section failed addr=0x80\n"},
        {"a\nb\nh80 h1 NONE.BIN c", false, 6, "Boot Section failed addr=0x80\n"},
        {"a\nb\nh80 h1 DIR.BIN c", false, 6, "Boot Section failed addr=0x80\n"},
        {"a\nb\n00080 h5 FOUR.BIN c", false, 14, "Boot Section failed addr=0x0080\n"},
        {"a\nb\nh80 h3 ODD.BIN c", false, 10, "Boot Section failed addr=0x80\n"},
        {"a\nb\nh123456 h1 FOUR.BIN c", false, 0, addressProblem + "is longer than 6 characters"},
        {"a\nb\nhXY h1 FOUR.BIN c", false, 0, addressProblem + "is not hexadecimal"},
        {"a\nb\nh h1 FOUR.BIN c", false, 0, addressProblem + "is not hexadecimal"},
        {"a\nb\nh-1 h1 FOUR.BIN c", false, 0, addressProblem + "is not hexadecimal"},
        {std::string("a\nb\nh1\0002 h1 FOUR.BIN c", 22), false, 0, "is not hexadecimal"},
        {"a\nb\nh1 h1 FOUR.BIN c h1 hG FOUR.BIN c", false, 8, "record 2: size is not hexadecimal"},
        {"a\nb\nh1 h10000 FOUR.BIN c", false, 0, "record 1: size is above FFFF"},
        {"a\nb\nh1 h1 " + longName + " c", false, 0, "section file name is longer than 31"},
        {"a\nb\nh1 h1 FOUR.BIN 1234567890123456", false, 0, "comment is longer than 15"},
    };
    for (const Row& row : rows) {
        write("LOAD.TXT", row.content);
        forget();
        EXPECT_EQ(row.boots, boot()) << row.content;
        EXPECT_EQ(row.bytesAfterHeader, static_cast<int>(takenBytes.size() - kHeaderBytes.size()))
            << row.content;
        EXPECT_THAT(console.err, HasSubstr(row.line)) << row.content;
        EXPECT_EQ(row.boots, cards.writes().back() == (PortAccess{true, base + 14, 2}));
    }
    for (const bool directory : {false, true}) {
        std::filesystem::remove_all("LOAD.TXT");
        if (directory) {
            std::filesystem::create_directory("LOAD.TXT");
        }
        EXPECT_FALSE(boot());
        EXPECT_THAT(console.err, HasSubstr("Cannot open file LOAD.TXT\n"));
    }
}

TEST_F(BootLoader, FailsOnALoadFileThatCannotBeReadToItsEnd) {
    // A regular file whose first read fails.
    std::filesystem::create_symlink("/proc/self/mem", "LOAD.TXT");
    EXPECT_FALSE(boot());
    EXPECT_THAT(console.err, HasSubstr("LOAD.TXT: cannot be read after record 0\n"));
    EXPECT_TRUE(cards.writes().back() == (PortAccess{true, base + 2, 0x1A})) << "no defaults";
}

TEST_F(BootLoader, SendsLongSectionsWholeAndClosesItsFiles) {
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = openFiles();
    std::string words(2 * 0xFFFF, '\0');
    std::vector<int> expected;
    for (std::size_t i = 0; i < words.size(); i += 2) {
        words[i] = static_cast<char>(i * 7);
        words[i + 1] = static_cast<char>(i >> 8);
        expected.push_back(static_cast<unsigned char>(words[i + 1]));
        expected.push_back(static_cast<unsigned char>(words[i]));
    }
    write("LONG.BIN", words + "more");
    writeLoadFile("h0 hFFFF LONG.BIN c\n");
    EXPECT_TRUE(boot());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(),
                           takenBytes.end() - static_cast<long>(expected.size()),
                           takenBytes.end()));
    EXPECT_EQ(kHeaderBytes.size() + 6 + expected.size(), takenBytes.size());
    EXPECT_EQ(before, openFiles());
}

}  // namespace
