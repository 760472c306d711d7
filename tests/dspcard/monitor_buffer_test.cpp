// The ring that carries audio to the output of card 0, against a plain queue as a model.
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <thread>

#include "MonitorBuffer.h"

namespace {

using Ring = CCircularBuffer<char, 600, false>;

std::string read(Ring& ring, std::uint32_t count) {
    std::string out(count, '?');
    out.resize(ring.Read(out.data(), count));
    return out;
}

TEST(CircularBuffer, BehavesAsAQueueThatDropsItsOldest) {
    Ring ring;
    std::deque<char> model;
    std::mt19937 random(20'261'122);
    const auto upTo = [&random](std::uint32_t highest) {
        return std::uniform_int_distribution<std::uint32_t>(0, highest)(random);
    };
    for (int step = 0; step < 20'000; ++step) {
        // Multiples of 100 meet the end of the storage exactly.
        const std::uint32_t count = step % 2 == 0 ? 100 * upTo(7) : upTo(650);
        std::string items(count, ' ');
        for (char& item : items) {
            item = static_cast<char>(random());
        }
        std::string expected;
        switch (upTo(3)) {
            case 0:
            case 1:
                ring.Write(items.data(), count);
                model.insert(model.end(), items.begin(), items.end());
                model.erase(model.begin(), model.end() - static_cast<long>(std::min<std::size_t>(
                                                             model.size(), 600)));
                break;
            case 2:
                expected.assign(
                    model.begin(),
                    model.begin() + static_cast<long>(std::min<std::size_t>(count, model.size())));
                model.erase(model.begin(), model.begin() + static_cast<long>(expected.size()));
                ASSERT_EQ(expected, read(ring, count)) << "step " << step;
                break;
            default:
                expected.assign(
                    model.begin(),
                    model.begin() + static_cast<long>(std::min<std::size_t>(count, model.size())));
                model.erase(model.begin(), model.begin() + static_cast<long>(expected.size()));
                ASSERT_EQ(expected.size(), ring.Discard(count)) << "step " << step;
        }
        ASSERT_EQ(model.size(), ring.get_countUsed()) << "step " << step;
        ASSERT_EQ(600 - model.size(), ring.get_countFree());
        ASSERT_EQ(model.empty(), ring.is_empty());
        ASSERT_EQ(model.size() == 600, ring.is_full());
    }
}

TEST(CircularBuffer, LeavesNothingBehindOnNullAndZero) {
    Ring ring("abc", 3);
    char out[3];
    ring.Write(nullptr, 3);
    ring.Write("xyz", 0);
    EXPECT_EQ(0u, ring.Read(nullptr, 3));
    EXPECT_EQ(0u, ring.Read(out, 0));
    EXPECT_EQ("abc", read(ring, 600));
    EXPECT_EQ(0u, ring.Discard(5));
}

TEST(CircularBuffer, CopiesPeeksAndMovesSingleItems) {
    CCircularBuffer<std::string, 3, true> names(std::string("Anna"));
    names.Write("Bert");
    names.Write("Carl");
    names.Write("Dora");
    CCircularBuffer<std::string, 3, true> copy(names);
    std::string name;
    EXPECT_TRUE(names.Peek(name));
    EXPECT_EQ("Bert", name);
    names.Empty();
    EXPECT_FALSE(names.Read(name));
    std::string all[3];
    EXPECT_EQ(3u, copy.Peek(all, 9));
    EXPECT_EQ("Dora", all[2]);
    names = copy;
    EXPECT_TRUE(names.Read(name));
    EXPECT_EQ("Bert", name);
    EXPECT_EQ(3u, copy.get_countUsed());
    EXPECT_EQ(3u, copy.get_maxItems());
}

TEST(CircularBufferDeathTest, QuotesTheBrokenInvariant) {
    struct Broken : Ring {
        void lose() { m_dwFree -= 1; }
        void stray() { m_pRead = const_cast<char*>(c_pBufferEnd); }
    } counted, pointed;
    counted.lose();
    pointed.stray();
    EXPECT_DEATH(counted.Discard(1), "\\(m_dwUsed \\+ m_dwFree\\) == MAX_ITEMS");
    EXPECT_DEATH(pointed.Discard(1),
                 "\\(c_pBufferStart <= m_pRead\\) && \\(m_pRead < c_pBufferEnd\\)");
}

TEST(MonitorBuffer, DeliversWhatItHasAndSaysHowMuchIsLeft) {
    MonitorBuffer& buffer = MonitorBuffer::getInstance();
    testing::internal::CaptureStderr();
    const std::string audio(500, 'a');
    buffer.addData(audio.data(), 500);
    buffer.addData("bbb", -1);
    buffer.addData(std::string(300, 'b').data(), 300);
    EXPECT_TRUE(buffer.isFull());
    std::string out(900, '.');
    buffer.getData(out.data(), 900);
    EXPECT_EQ(std::string(300, 'a') + std::string(300, 'b') + std::string(300, '.'), out);
    EXPECT_TRUE(buffer.isEmpty());
    buffer.addData("rest", 4);
    buffer.clear();
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_EQ(
        "Adding data to monitor buffer, size now=500\n"
        "Adding data to monitor buffer, size now=500\n"
        "Adding data to monitor buffer, size now=600\n"
        "Getting data from monitor buffer, size now=0\n"
        "Adding data to monitor buffer, size now=4\n",
        testing::internal::GetCapturedStderr());
}

TEST(MonitorBuffer, IsEmptiedByAnotherThreadMeanwhile) {
    MonitorBuffer& buffer = MonitorBuffer::getInstance();
    testing::internal::CaptureStderr();
    std::thread client([&buffer] {
        for (int i = 0; i < 2000; ++i) {
            buffer.clear();
            static_cast<void>(buffer.isEmpty());
        }
    });
    const std::string audio(300, 'x');
    for (int i = 0; i < 2000; ++i) {
        std::string out(300, '.');
        buffer.addData(audio.data(), 300);
        buffer.getData(out.data(), 300);
        ASSERT_EQ(std::string::npos, out.find_first_not_of("x."));
    }
    client.join();
    testing::internal::GetCapturedStderr();
    buffer.clear();
    EXPECT_TRUE(buffer.isEmpty());
}

}  // namespace
