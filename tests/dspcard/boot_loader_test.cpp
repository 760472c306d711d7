// The boot loader against a card that takes every byte at once, or does not: what goes over the
// ports, what is printed, and what load files may hold.
#include "DSPBootLoader.h"
#include "DirectIO.h"
#include "ScriptedCards.h"
#include "Surroundings.h"

namespace {

using namespace testing;

class BootLoader : public Test {
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
        console.take();
    }
    bool boot() {
        takenBytes.clear();
        console.take();
        const bool booted = loader.bootload("LOAD.TXT");
        console.take();
        return booted;
    }

    const WorkingFolder folder;
    ScriptedCards cards;
    DSPBootloader loader;
    Bytes takenBytes;
    Console console;
    int data = -1;
    std::clock_t lastWrite_us = 0;
    int wantsBytes = 1 << 20;  // asks for that many bytes, then no more
    int takesBytes = 1 << 20;  // takes that many, then stays busy
};

TEST_F(BootLoader, StreamsHeaderAndSectionsHighByteFirstAndWritesTheDefaultsOfEachCard) {
    folder.write("CODE.BIN", std::string("\x34\x12\xFF\xFF\x02\x00", 6));
    folder.write("LOAD.TXT", "header\n\nhF0080 h0003 CODE.BIN code\n0F000 00002 CODE.BIN data\r\n");
    using Row = std::tuple<unsigned, int, std::string>;
    for (const auto& [channels, board, defaults] :
         {Row(4, 0, "4=0 6=1 8=1 a=1 c=1 e=2 "), Row(4, 1, "4=0 6=1 8=1 a=1 c=1 e=0 "),
          Row(8, 0, "4=0 6=11 8=11 a=11 c=21 "), Row(8, 1, "4=0 6=11 8=11 a=11 e=1 ")}) {
        const unsigned base = board == 0 ? 0x300 : 0x310;
        std::string dialogue;  // what is printed, bytes, and what other registers get
        bool isStrobed = false;
        cards.onRead = [](int) { return 0x24u; };
        cards.onWrite = [&](unsigned port, std::uint32_t value) {
            char text[20];
            std::snprintf(text, sizeof(text), "%x=%x ", port - base, value);
            dialogue += console.take().out + console.err;
            const bool endsStrobe = std::exchange(isStrobed, value == 0x0A) && value == 0x1A;
            dialogue += isStrobed || endsStrobe ? "" : text + (port == base ? 2 : 0);
        };
        loader.init(base, channels, board);
        cards.slept_us.clear();
        EXPECT_TRUE(loader.bootload("LOAD.TXT"));
        EXPECT_TRUE(loader.startDSP());
        EXPECT_THAT(cards.slept_us, ElementsAre(100, 100));
        EXPECT_EQ(
            "Bootload:LOAD.TXT\nBootLoader placing DSP in reset, port=" +
                std::to_string(base + 14) +
                "\ne=8 2=12 BootLoader placing DSP out of reset, port=" + std::to_string(base + 2) +
                "\n2=1a Boot Mode\n8 aa wait state reg\n7f ff bank switch reg\nf8 0 "
                "extended entry\n0 0 entry\n0 80 Bootload opening file\n"
                "Attempt Boot Section - addr: 983168 size: 3 sectionName: CODE.BIN\n"
                "0 3 0 0 0 80 12 34 ff ff 0 2 "
                "\nBoot section succeeded: CODE.BIN Checksum: 4661\n"
                "Attempt Boot Section - addr: 61440 size: 2 sectionName: CODE.BIN\n"
                "0 2 0 0 f0 0 12 34 ff ff "
                "\nBoot section succeeded: CODE.BIN Checksum: 4659\n2=24 " +
                defaults + "0 0 ",
            dialogue);
    }
}

TEST_F(BootLoader, GivesUpOnACardThatStopsAnsweringAtAnyByte) {
    folder.write("CODE.BIN", "abcdefgh");
    folder.write("LOAD.TXT", "a\nb\nh0080 h0004 CODE.BIN code\n");
    ASSERT_TRUE(boot());
    cards.accessTime_us = 50;  // 200 ms pass in fewer accesses
    const Bytes allBytes = takenBytes;
    const int count = static_cast<int>(allBytes.size());
    for (int i = 0; i < 2 * count; ++i) {
        wantsBytes = i % 2 == 0 ? i / 2 : count;
        takesBytes = i % 2 == 0 ? count : i / 2;
        EXPECT_FALSE(boot());
        EXPECT_EQ((i + 1) / 2, static_cast<int>(takenBytes.size()));
        EXPECT_THAT(cards.elapsed_us - lastWrite_us, AllOf(Gt(200'000), Lt(200'200)));
        EXPECT_EQ(i >= 20, Matches(HasSubstr("Section failed addr=0x0080\n"))(console.err));
    }
    EXPECT_TRUE(loader.startDSP()) << "whatever the card does";
    wantsBytes = takesBytes = count;
    EXPECT_TRUE(boot());
    EXPECT_EQ(allBytes, takenBytes);
}

TEST_F(BootLoader, TakesWhatLoadFilesMayHoldAndNamesWhatTheyMayNot) {
    folder.write("FOUR.BIN", std::string("\1\0\2\0\3\0\4\0", 8));
    folder.write("ODD.BIN", std::string("\1\0\2\0\3", 5));
    std::filesystem::create_directory("DIR.BIN");
    std::string content(0x20000, '\0');
    content[2 * 0xFFFE] = 5;  // the last word of the longest section
    folder.write("LONG.BIN", content);
    const auto before = openFiles();
    const std::string name(31, 'N'), address = "LOAD.TXT: record 1: address is ";
    folder.write(name, "12");
    const auto expectBoot = [this](bool boots, int blockBytes, const std::string& line) {
        EXPECT_EQ(boots, boot());
        EXPECT_EQ(10 + blockBytes, static_cast<int>(takenBytes.size()));
        EXPECT_THAT(console.err, HasSubstr(line));
        EXPECT_EQ(boots, cards.accesses.back() == writes(0x30E, 2)) << "the last of the defaults";
    };
    const std::tuple<std::string, bool, int, std::string> rows[] = {
        {"a\nb\n", true, 0, ""},
        {"", false, 0, "Bootload opening file\n"},
        {"a\nb\nh1 h1 FOUR.BIN\n", true, 0, ""},
        {"a\nb\nh1 h1 FOUR.BIN c h2 h2 FOUR.BIN", true, 8, "addr: 1 size: 1 "},
        {"a\nb\n1234 00002\nFOUR.BIN\n\tc", true, 10, "addr: 564 size: 2 "},
        {"a\nb\nhFfFfF h0001 FOUR.BIN c", true, 8, "addr: 1048575 size: 1 "},
        {"a\nb\nh80 h0 FOUR.BIN c", true, 6, "Checksum: 0\n"},
        {"a\nb\nh0 hFFFF LONG.BIN c", true, 6 + 2 * 0xFFFF, "Checksum: 5\n"},
        {"a\nb\nh1 h1 " + name + " 123456789012345", true, 8, "Checksum: 12849\n"},
        {"a\nb\nh80 h0 NONE.BIN c", false, 6, "Boot Section failed addr=0x80\n"},
        {"a\nb\nh80 h1 DIR.BIN c", false, 6, "Boot Section failed addr=0x80\n"},
        {"a\nb\n00080 h5 FOUR.BIN c", false, 14, "Boot Section failed addr=0x0080\n"},
        {"a\nb\nh80 h3 ODD.BIN c", false, 10, "Boot Section failed addr=0x80\n"},
        {"a\nb\nh123456 h1 FOUR.BIN c", false, 0, address + "longer than 6 characters"},
        {"a\nb\nh h1 FOUR.BIN c", false, 0, address + "not hexadecimal"},
        {"a\nb\nh-1 h1 FOUR.BIN c", false, 0, address + "not hexadecimal"},
        {std::string("a\nb\nh1\0002 h1 FOUR.BIN c", 22), false, 0, address + "not hexadecimal"},
        {"a\nb\nh1 h1 FOUR.BIN c h1 hG FOUR.BIN c", false, 8, "record 2: size is not hexadecimal"},
        {std::string("a\nb\nh1 h1 FOUR.BIN\0X c", 22), false, 0, "has a zero byte after: FOUR.BIN"},
        {"a\nb\nh1 h10000 FOUR.BIN c", false, 0, "record 1: size is above FFFF"},
        {"a\nb\nh1 h1 " + name + "N c", false, 0, "section file name is longer than 31"},
        {"a\nb\nh1 h1 FOUR.BIN 1234567890123456", false, 0, "comment is longer than 15"},
    };
    for (const auto& [records, boots, blockBytes, line] : rows) {
        SCOPED_TRACE(records);
        folder.write("LOAD.TXT", records);
        expectBoot(boots, blockBytes, line);
    }
    std::filesystem::remove("LOAD.TXT");
    expectBoot(false, 0, "Cannot open file LOAD.TXT\n");
    std::filesystem::create_symlink("/proc/self/mem", "LOAD.TXT");  // its first read fails
    expectBoot(false, 0, "LOAD.TXT: cannot be read after record 0\n");
    EXPECT_EQ(before, openFiles());
}

}  // namespace
