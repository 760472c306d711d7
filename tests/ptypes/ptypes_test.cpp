// The PTypes interface as the driver relies on it; holds for an installed library just as well.
#include <gtest/gtest.h>
#include <pasync.h>
#include <ptypes.h>

#include <atomic>
#include <chrono>
#include <string>

namespace {

using std::chrono::steady_clock;

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
    EXPECT_TRUE(text == "DTMF:123#" && text != pt::string("DTMF:123"));
    EXPECT_TRUE(pt::string('x') == 'x');
    EXPECT_TRUE(pt::string("x", -1) == "");
    EXPECT_EQ(std::string("DTMF:123#"), static_cast<const char*>(text));
    EXPECT_TRUE("CLI:" + pt::string("0\0x", 3) != "CLI:0");
}

TEST(PtListDeathTest, KeepsOrderAndOwnsOnlyWhenTold) {
    int alive = 0;
    Counted* const items[] = {new Counted(&alive), new Counted(&alive), new Counted(&alive)};
    for (const bool owns : {false, true}) {
        pt::objlist list(owns);
        EXPECT_EQ(0, pt::add(list, items[1]));
        EXPECT_EQ(1, pt::add(list, items[2]));
        pt::ins(list, 0, items[0]);
        EXPECT_EQ(items[0], pt::get(list, 0));
        pt::del(list, 1);
        EXPECT_EQ(items[2], pt::get(list, 1));
        EXPECT_EXIT(pt::get(list, 2), testing::ExitedWithCode(3), "List index out of range");
        EXPECT_EQ(owns ? 2 : 3, alive);
        EXPECT_EQ(2, pt::length(list));
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
        const auto start = steady_clock::now();
        while (pt::length(list) > 0) {
            pt::del(list, 0);
        }
        return steady_clock::now() - start;
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
            const pt::scopelock untilOpened(gate);
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
    const auto start = steady_clock::now();
    pt::psleep(30);
    EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_FALSE(worker.get_finished());
    worker.gate.leave();
    worker.waitfor();
    EXPECT_TRUE(worker.get_finished());
    EXPECT_EQ(1, worker.executed);
    EXPECT_EQ(worker.body, worker.cleaner);
    EXPECT_NE(std::this_thread::get_id(), worker.body);
}

TEST(PtFatalDeathTest, SaysWhyAndExitsWithTheCode) {
    EXPECT_EXIT(pt::fatal(7, "no more"), testing::ExitedWithCode(7),
                "\nInternal \\[0007\\]: no more\n");
}

}  // namespace
