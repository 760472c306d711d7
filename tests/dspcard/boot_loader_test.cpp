// The boot loader against a card that takes every byte at once, or does not: what goes over the
// ports, what is printed, and what load files may hold.
#include <gmock/gmock.h>

#include "DSPBootLoader.h"
#include "DirectIO.h"
#include "ScriptedCards.h"
#include "Surroundings.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class BootLoader : public testing::Test {
  protected:
    BootLoader() {
        DirectIO::getInstance().allowPortAccess();
        cards.onRead = [this](int) {
            const int taken = static_cast<int>(takenBytes.size());
            return (taken < wantsBytes ? 0x20u : 0u) | (taken > takesBytes ? 0x01u : 0u);
        };
        // Keeps the bytes that are strobed into the card.
        cards.onWrite = [this](int port, std::uint32_t value) {
            lastWrite_us = cards.elapsed_us;
            if (port == 0x300) {
                data = static_cast<int>(value);
            } else if (port == 0x302 && value == 0x0A) {
                takenBytes.push_back(data);
            }
        };
        loader.init(0x300, 4, 0);
    }
    bool boot() {
        takenBytes.clear();
        console.take();
        const bool booted = loader.bootload("LOAD.TXT");
        console.take();
        return booted;
    }
    std::vector<int> takenWords() const {
        std::vector<int> words;
        for (std::size_t i = 0; i + 1 < takenBytes.size(); i += 2) {
            words.push_back(takenBytes[i] << 8 | takenBytes[i + 1]);
        }
        return words;
    }

    static constexpr int kHeaderBytes = 10;
    const WorkingFolder folder;
    ScriptedCards cards;
    DSPBootloader loader;
    std::vector<int> takenBytes;
    Console console;
    int data = -1;
    std::clock_t lastWrite_us = 0;
    int wantsBytes = 1 << 20;  // asks for that many bytes, then no more
    int takesBytes = 1 << 20;  // takes that many, then stays busy
};

TEST_F(BootLoader, StreamsHeaderAndSectionsHighByteFirst) {
    loader.bootByte(0x5A);
    EXPECT_THAT(cards.accesses,
                ElementsAre(reads(0x302, 0x20), writes(0x300, 0x5A), writes(0x302, 0x0A),
                            reads(0x302, 0x20), writes(0x302, 0x1A)));
    folder.write("CODE.BIN", std::string("\x34\x12\xFF\xFF\x02\x00", 6));
    folder.write("LOAD.TXT", "header\n\nh0080 h0003 CODE.BIN code\n0F000 00002 CODE.BIN data\r\n");
    ASSERT_TRUE(boot());
    EXPECT_THAT(takenWords(), ElementsAre(0x08AA, 0x7FFF, 0xF800, 0x0000, 0x0080, 3, 0, 0x0080,
                                          0x1234, 0xFFFF, 0x0002, 2, 0, 0xF000, 0x1234, 0xFFFF));
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
    takenBytes.clear();
    EXPECT_TRUE(loader.startDSP());
    EXPECT_THAT(takenBytes, ElementsAre(0, 0));
}

TEST_F(BootLoader, ResetsAndWritesTheDefaultsOfEachCard) {
    cards.onRead = [](int) { return 0x25u; };
    using Defaults = std::vector<std::pair<int, std::uint32_t>>;
    const std::tuple<int, unsigned, int, Defaults> rows[] = {
        {0x300, 4, 0, {{2, 0x24}, {4, 0}, {6, 1}, {8, 1}, {10, 1}, {12, 1}, {14, 2}}},
        {0x310, 4, 1, {{2, 0x24}, {4, 0}, {6, 1}, {8, 1}, {10, 1}, {12, 1}, {14, 0}}},
        {0x300, 8, 0, {{2, 0x24}, {4, 0}, {6, 0x11}, {8, 0x11}, {10, 0x11}, {12, 0x21}}},
        {0x310, 8, 1, {{2, 0x24}, {4, 0}, {6, 0x11}, {8, 0x11}, {10, 0x11}, {14, 1}}},
    };
    for (const auto& [base, channels, board, defaults] : rows) {
        std::vector<PortAccess> expected = {writes(base + 14, 8), writes(base + 2, 0x12),
                                            writes(base + 2, 0x1A), reads(base + 2, 0x25)};
        for (const auto& [offset, value] : defaults) {
            expected.push_back(writes(base + offset, value));
        }
        loader.init(static_cast<unsigned>(base), channels, board);
        cards.accesses.clear();
        cards.slept_us.clear();
        EXPECT_TRUE(loader.resetDSP(true));
        EXPECT_TRUE(loader.resetDSP(false));
        loader.loadDefaults();
        EXPECT_EQ(expected, cards.accesses);
        EXPECT_THAT(cards.slept_us, ElementsAre(100, 100));
    }
}

TEST_F(BootLoader, GivesUpOnACardThatStopsAnsweringAtAnyByte) {
    folder.write("CODE.BIN", "abcdefgh");
    folder.write("LOAD.TXT", "a\nb\nh0080 h0004 CODE.BIN code\n");
    ASSERT_TRUE(boot());
    cards.accessTime_us = 50;  // 200 ms pass in fewer accesses
    const int allBytes = static_cast<int>(takenBytes.size());
    for (int i = 0; i < 2 * allBytes; ++i) {
        const int byte = i / 2;
        wantsBytes = i % 2 == 0 ? byte : allBytes;
        takesBytes = i % 2 == 0 ? allBytes : byte;
        EXPECT_FALSE(boot());
        EXPECT_EQ(byte + i % 2, static_cast<int>(takenBytes.size()));
        EXPECT_GT(cards.elapsed_us - lastWrite_us, 200'000);
        EXPECT_LT(cards.elapsed_us - lastWrite_us, 201'000);
        EXPECT_EQ(byte >= kHeaderBytes,
                  console.err.find("Boot Section failed addr=0x0080\n") != std::string::npos);
    }
}

TEST_F(BootLoader, TakesWhatLoadFilesMayHoldAndNamesWhatTheyMayNot) {
    folder.write("FOUR.BIN", std::string("\1\0\2\0\3\0\4\0", 8));
    folder.write("ODD.BIN", std::string("\1\0\2\0\3", 5));
    std::filesystem::create_directory("DIR.BIN");
    const std::string name(31, 'N');
    folder.write(name, "12");
    const std::string address = "LOAD.TXT: record 1: address ";
    const std::tuple<std::string, bool, int, std::string> rows[] = {
        {"a\nb\n", true, 0, ""},
        {"a\nb", false, 0, "Bootload opening file\n"},
        {"", false, 0, "Bootload opening file\n"},
        {"a\nb\nh1 h1 FOUR.BIN\n", true, 0, ""},
        {"a\nb\nh1 h1 FOUR.BIN c h2 h2 FOUR.BIN", true, 8, "addr: 1 size: 1 "},
        {"a\nb\n1234 00002\nFOUR.BIN\n\tc", true, 10, "addr: 564 size: 2 "},
        {"a\nb\nhFFFFF h0001 FOUR.BIN c", true, 8, "addr: 1048575 size: 1 "},
        {"a\nb\nh80 h0 FOUR.BIN c", true, 6, "Checksum: 0\n"},
        {"a\nb\nh1 h1 " + name + " 123456789012345", true, 8, "Checksum: 12849\n"},
        {"a\nb\nh80 h0 NONE.BIN c", false, 6, "Boot Section failed addr=0x80\n"},
        {"a\nb\nh80 h1 DIR.BIN c", false, 6, "Boot Section failed addr=0x80\n"},
        {"a\nb\n00080 h5 FOUR.BIN c", false, 14, "Boot Section failed addr=0x0080\n"},
        {"a\nb\nh80 h3 ODD.BIN c", false, 10, "Boot Section failed addr=0x80\n"},
        {"a\nb\nh123456 h1 FOUR.BIN c", false, 0, address + "is longer than 6 characters"},
        {"a\nb\nhXY h1 FOUR.BIN c", false, 0, address + "is not hexadecimal"},
        {"a\nb\nh h1 FOUR.BIN c", false, 0, address + "is not hexadecimal"},
        {"a\nb\nh-1 h1 FOUR.BIN c", false, 0, address + "is not hexadecimal"},
        {std::string("a\nb\nh1\0002 h1 FOUR.BIN c", 22), false, 0, "is not hexadecimal"},
        {"a\nb\nh1 h1 FOUR.BIN c h1 hG FOUR.BIN c", false, 8, "record 2: size is not hexadecimal"},
        {"a\nb\nh1 h10000 FOUR.BIN c", false, 0, "record 1: size is above FFFF"},
        {"a\nb\nh1 h1 " + name + "N c", false, 0, "section file name is longer than 31"},
        {"a\nb\nh1 h1 FOUR.BIN 1234567890123456", false, 0, "comment is longer than 15"},
    };
    const auto expectBoot = [this](bool boots, int blockBytes, const std::string& line) {
        EXPECT_EQ(boots, boot());
        EXPECT_EQ(kHeaderBytes + blockBytes, static_cast<int>(takenBytes.size()));
        EXPECT_THAT(console.err, HasSubstr(line));
        EXPECT_EQ(boots, cards.accesses.back() == writes(0x30E, 2)) << "the last of the defaults";
    };
    for (const auto& [content, boots, blockBytes, line] : rows) {
        SCOPED_TRACE(content);
        folder.write("LOAD.TXT", content);
        expectBoot(boots, blockBytes, line);
    }
    std::filesystem::remove("LOAD.TXT");
    expectBoot(false, 0, "Cannot open file LOAD.TXT\n");
    std::filesystem::create_symlink("DIR.BIN", "LOAD.TXT");
    expectBoot(false, 0, "Cannot open file LOAD.TXT\n");
    std::filesystem::remove("LOAD.TXT");
    std::filesystem::create_symlink("/proc/self/mem", "LOAD.TXT");  // its first read fails
    expectBoot(false, 0, "LOAD.TXT: cannot be read after record 0\n");
}

TEST_F(BootLoader, SendsLongSectionsWholeAndClosesItsFiles) {
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = openFiles();
    std::string content;
    std::vector<int> expected = {0x08AA, 0x7FFF, 0xF800, 0x0000, 0x0080, 0xFFFF, 0, 0x1234};
    for (int word = 0; word < 0xFFFF; ++word) {
        content.append({static_cast<char>(word), static_cast<char>(word >> 8)});
        expected.push_back(word);
    }
    folder.write("LONG.BIN", content + "more");
    folder.write("LOAD.TXT", "a\nb\nhF1234 hFFFF LONG.BIN c\n");
    EXPECT_TRUE(boot());
    EXPECT_TRUE(expected == takenWords());
    EXPECT_EQ(before, openFiles());
}

}  // namespace
