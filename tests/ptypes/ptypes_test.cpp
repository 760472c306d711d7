// The PTypes interface as the driver relies on it; holds for an installed library just as well.
#include <gtest/gtest.h>
#include <pasync.h>
#include <ptime.h>
#include <ptypes.h>

#include <atomic>
#include <chrono>
#include <cstring>

namespace {

struct Counted : pt::unknown {
    explicit Counted(int* alive) : count(alive) { ++*count; }
    ~Counted() override { --*count; }
    int* count;
};

TEST(PtString, JoinsComparesAndConverts) {
    pt::string text = "DTMF:";
    text += pt::string("12345", 3);
    text += '#';
    EXPECT_EQ(9, pt::length(text));
    EXPECT_TRUE(text == "DTMF:123#");
    EXPECT_TRUE(text != pt::string("DTMF:123"));
    EXPECT_TRUE(pt::string('x') == 'x');
    const char* const plain = text;
    const unsigned char* const bytes = text;
    EXPECT_EQ(0, std::strcmp(plain, "DTMF:123#"));
    EXPECT_EQ('D', bytes[0]);
    EXPECT_TRUE("CLI:" + pt::string("0\0"
                                    "1",
                                    3) !=
                "CLI:0");
}

TEST(PtList, KeepsOrderAndOwnsOnlyWhenTold) {
    int alive = 0;
    {
        pt::objlist plain;
        auto* const first = new Counted(&alive);
        auto* const second = new Counted(&alive);
        auto* const third = new Counted(&alive);
        EXPECT_EQ(0, pt::add(plain, second));
        EXPECT_EQ(1, pt::add(plain, third));
        pt::ins(plain, 0, first);
        EXPECT_EQ(first, pt::get(plain, 0));
        pt::del(plain, 1);
        EXPECT_EQ(third, pt::get(plain, 1));
        pt::clear(plain);
        EXPECT_EQ(0, pt::length(plain));
        EXPECT_EQ(3, alive);
        pt::objlist owner(true);
        pt::add(owner, first);
        pt::add(owner, second);
        pt::add(owner, third);
        pt::del(owner, 0);
        EXPECT_EQ(2, alive);
    }
    EXPECT_EQ(0, alive);
}

TEST(PtList, TakesFromTheFrontInConstantTime) {
    const auto drain = [](int length) {
        pt::objlist list;
        pt::unknown item;
        for (int i = 0; i < length; ++i) {
            pt::add(list, &item);
        }
        const auto start = std::chrono::steady_clock::now();
        while (pt::length(list) > 0) {
            pt::del(list, 0);
        }
        return std::chrono::steady_clock::now() - start;
    };
    drain(10'000);
    // Closing the gap item by item would make the long list cost 40 times more an item.
    EXPECT_LT(drain(400'000), drain(10'000) * 400);
}

TEST(PtThread, RunsOnceAndCleansUpOnItsThread) {
    struct Worker : pt::thread {
        Worker() : pt::thread(false) {}
        void execute() override {
            ++executed;
            gate.enter();
            gate.leave();
            body = std::this_thread::get_id();
        }
        void cleanup() override { cleaner = std::this_thread::get_id(); }
        pt::mutex gate;
        std::atomic<int> executed{0};
        std::thread::id body, cleaner;
    } worker;
    EXPECT_FALSE(worker.get_running());
    worker.gate.enter();
    worker.start();
    worker.start();
    EXPECT_TRUE(worker.get_running());
    EXPECT_FALSE(worker.get_finished());
    worker.gate.leave();
    worker.waitfor();
    EXPECT_TRUE(worker.get_finished());
    EXPECT_EQ(1, worker.executed);
    EXPECT_EQ(worker.body, worker.cleaner);
    EXPECT_NE(std::this_thread::get_id(), worker.body);
}

TEST(PtThread, FreesItselfWhenAsked) {
    struct Worker : pt::thread {
        explicit Worker(std::atomic<bool>& flag) : pt::thread(true), gone(flag) {}
        ~Worker() override { gone = true; }
        void execute() override {}
        std::atomic<bool>& gone;
    };
    std::atomic<bool> gone{false};
    (new Worker(gone))->start();
    for (int i = 0; i < 500 && !gone; ++i) {
        pt::psleep(10);
    }
    EXPECT_TRUE(gone);
}

TEST(PtTime, CountsMillisecondsFromYearOne) {
    const auto unixNow = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const pt::large before = unixNow();
    const pt::large now = pt::now(true) - 62'135'596'800'000;
    EXPECT_LE(before, now);
    EXPECT_LE(now, unixNow());
    const auto start = std::chrono::steady_clock::now();
    pt::psleep(30);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST(PtFatalDeathTest, SaysWhyAndExitsWithTheCode) {
    EXPECT_EXIT(pt::fatal(7, "no more"), testing::ExitedWithCode(7),
                "\nInternal \\[0007\\]: no more\n");
    EXPECT_EXIT(pt::fatal(-1, "x"), testing::ExitedWithCode(255), "Internal \\[ffffffff\\]: x");
}

}  // namespace
