// The trace file: what has been written is read again, whatever becomes of the rest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "format/About.h"
#include "format/TraceReader.h"
#include "format/TraceWriter.h"

namespace {

using namespace cardtrace;
using namespace testing;

class Bytes : public Source {
  public:
    explicit Bytes(const std::string& content) : bytes(content) {}
    std::uint64_t size() const override { return bytes.size(); }
    std::size_t read(std::uint64_t offset, void* to, std::size_t count) const override {
        const std::size_t there =
            bytes.size() - static_cast<std::size_t>(std::min<std::uint64_t>(offset, bytes.size()));
        std::copy_n(bytes.data() + bytes.size() - there, std::min(count, there),
                    static_cast<char*>(to));
        return std::min(count, there);
    }

  private:
    const std::string bytes;
};

class TraceFile : public Test {
  protected:
    ~TraceFile() override { std::filesystem::remove(path); }

    static Record record(std::uint64_t number) {
        Record made;
        made.kind = number % 50 == 0 ? Kind::kBuffers : number % 7 == 0 ? Kind::kSleep : Kind::kIn;
        made.width = 2;
        made.port = static_cast<std::uint16_t>(number % 2);
        made.value = static_cast<std::uint32_t>(number);
        made.thread = 4711;
        made.flags = static_cast<std::uint16_t>(number % 3);
        // Now and then nothing happens for hours.
        made.time_us = number * 1000 + number / 600 * 5'000'000'000;
        if (made.kind == Kind::kBuffers) {
            std::mt19937 noise(static_cast<unsigned>(number));
            made.data.resize(kCardMemoryBytes);
            std::generate(made.data.begin(), made.data.end(), [&] { return char(noise()); });
        } else if (made.kind == Kind::kSleep) {
            made.data = dataOf({1, number, 2});
        }
        return made;
    }
    std::string write(std::uint64_t records, std::uint64_t most = 0) {
        TraceWriter writer(path, R"({"cards": "of a test"})", most);
        for (std::uint64_t number = 1; number <= records; ++number) {
            writer.add(record(number));
        }
        writer.sync();
        std::ostringstream text;
        text << std::ifstream(path, std::ios::binary).rdbuf();
        return text.str();
    }
    // Reads all that can be read; each record must be one that was written, in its order.
    std::vector<std::uint64_t> read(const std::string& bytes) {
        std::vector<std::uint64_t> numbers;
        TraceReader reader("trace", std::make_unique<Bytes>(bytes));
        Record seen;
        for (about = reader.about(); reader.next(seen); numbers.push_back(seen.value)) {
            const Record due = record(seen.value);
            EXPECT_TRUE(numbers.empty() || seen.value > numbers.back());
            EXPECT_EQ(reader.isAfterGap(),
                      seen.value != (numbers.empty() ? 1 : numbers.back() + 1));
            EXPECT_EQ(std::tie(due.kind, due.width, due.port, due.thread, due.flags, due.time_us,
                               due.data),
                      std::tie(seen.kind, seen.width, seen.port, seen.thread, seen.flags,
                               seen.time_us, seen.data));
        }
        troubles = reader.troubles();
        return numbers;
    }

    const std::string path = TempDir() + "trace-" + std::to_string(getpid());
    std::string about;
    std::vector<std::string> troubles;
};

TEST_F(TraceFile, GivesBackWhatWasPutIn) {
    const auto numbers = read(write(2000));
    EXPECT_EQ(2000u, numbers.size());
    EXPECT_EQ(R"({"cards": "of a test"})", about);
    EXPECT_THAT(troubles, IsEmpty());
    EXPECT_THAT(read(write(0)), IsEmpty());
}

TEST_F(TraceFile, GivesWhatIsLeftWhenItIsCutOffOrDamagedAndSaysWhere) {
    const std::string whole = write(2000);
    std::size_t most = 0;
    for (std::size_t length = 60; length < whole.size(); length += 997) {
        const auto numbers = read(whole.substr(0, length));
        EXPECT_GE(numbers.size(), most);
        most = numbers.size();
    }
    EXPECT_GT(most, 1500u);
    std::mt19937 place(1);
    for (int i = 0; i < 200; ++i) {
        std::string damaged = whole;
        const std::size_t at = 46 + place() % (whole.size() - 46);
        damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
        const auto numbers = read(damaged);
        EXPECT_GT(numbers.size(), 1000u) << "one block is lost at most, at byte " << at;
        EXPECT_LT(numbers.size(), 2000u);
        EXPECT_THAT(troubles, Not(IsEmpty()));
    }
    // A block twice, a block away, and other bytes between two.
    const std::size_t block = whole.find("CTBK", whole.find("CTBK") + 1);
    const std::size_t after = whole.find("CTBK", block + 1);
    EXPECT_EQ(2000u, read(whole.substr(0, after) + whole.substr(block)).size());
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("a second time")));
    EXPECT_LT(read(whole.substr(0, block) + whole.substr(after)).size(), 2000u);
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("1 blocks are missing before block 2")));
    EXPECT_EQ(2000u, read(whole.substr(0, block) + "CTBK..." + whole.substr(block)).size());
    EXPECT_THAT(troubles, ElementsAre(HasSubstr("7 bytes are damaged")));
    const std::string hole(3'000'000, 'x');
    EXPECT_EQ(2000u, read(whole.substr(0, block) + hole + whole.substr(block)).size());
}

TEST_F(TraceFile, OfBoundedLengthKeepsTheNewest) {
    for (const std::uint64_t records : {2000, 5000, 12'000}) {
        const std::string bytes = write(records, 600'000);
        EXPECT_LE(bytes.size(), 600'000u);
        const auto numbers = read(bytes);
        EXPECT_EQ(records, numbers.back());
        EXPECT_GT(numbers.size(), 1500u);
        EXPECT_EQ(numbers.size(), numbers.back() - numbers.front() + 1) << "without a gap";
        EXPECT_THAT(troubles, IsEmpty());
    }
    EXPECT_THROW(TraceWriter(path, "", 1000), std::invalid_argument);
}

TEST_F(TraceFile, IsRefusedWhenItIsNoneOrOfANewerVersion) {
    const std::string whole = write(10);
    std::string newer = whole;
    newer[8] = 2;
    const auto refusal = [this](const std::string& bytes) { return [=] { read(bytes); }; };
    EXPECT_THAT(refusal(newer), ThrowsMessage<NotATrace>("trace: is of version 2; this program "
                                                         "knows up to 1"));
    EXPECT_THAT(refusal(""), ThrowsMessage<NotATrace>("trace: is no trace"));
    EXPECT_THAT(refusal("x" + whole), ThrowsMessage<NotATrace>("trace: is no trace"));
    std::string unclear = whole;
    unclear[30] = '?';
    EXPECT_EQ(10u, read(unclear).size()) << "only what it is of is lost";
    EXPECT_EQ("", about);
}

TEST_F(TraceFile, MayBeOfAnything) {
    const std::string deep =
        R"({"cards": "real", "a": )" + std::string(300'000, '[') + std::string(300'000, ']') + "}";
    const auto copy = readAbout<nlohmann::json>(deep);
    EXPECT_EQ(copy["cards"], "real");
    EXPECT_EQ(readAbout<nlohmann::json>("[1"), nlohmann::json::object());
}

}  // namespace
