// The PTypes interface as the driver relies on it; holds for an installed library just as well.
#include <gtest/gtest.h>
#include <pasync.h>
#include <ptypes.h>

#include <chrono>
#include <thread>
#include <vector>

TEST(PtString, JoinsComparesAndConverts) {
    const pt::string text = "DTMF:" + pt::string("12345", 3) + '#';
    EXPECT_TRUE(text == "DTMF:123#" && text != pt::string("DTMF:123") && pt::length(text) == 9);
    EXPECT_TRUE("CLI:" + pt::string("0\0x", 3) != "CLI:0" && pt::string("x", -1) == "");
}

struct Item : pt::unknown {
    ~Item() override { ++deleted; }
    static inline int deleted = 0;
};

TEST(PtList, KeepsOrderOwnsOnlyWhenToldAndTakesFromTheFrontAtOnce) {
    Item* const items[] = {new Item, new Item, new Item};
    for (const bool owns : {false, true}) {
        pt::objlist list(owns);
        EXPECT_TRUE(pt::add(list, items[1]) == 0 && pt::add(list, items[2]) == 1);
        pt::ins(list, 0, items[0]);
        pt::del(list, 1);
        EXPECT_TRUE(pt::get(list, 0) == items[0] && pt::get(list, 1) == items[2]);
    }
    EXPECT_EQ(3, Item::deleted);
    const auto start = std::chrono::steady_clock::now();
    pt::objlist list;
    for (int i = 0; i < 800'000; ++i) {  // closing each gap item by item would take minutes
        i < 400'000 ? static_cast<void>(pt::add(list, items[0])) : pt::del(list, 0);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(PtFatalDeathTest, SaysWhyAndExitsWithTheCode) {
    EXPECT_EXIT(pt::fatal(7, "no more"), testing::ExitedWithCode(7), "\nInternal \\[0007\\]: no m");
    EXPECT_EXIT(pt::get(pt::objlist(), 0), testing::ExitedWithCode(3), "List index out of range");
}

TEST(PtThread, RunsOnceAndCleansUpOnItsThread) {
    struct Worker : pt::thread {
        Worker() : pt::thread(false) {}
        void execute() override {
            const pt::scopelock untilOpened(gate);
            cleanup();
        }
        void cleanup() override { ids.push_back(std::this_thread::get_id()); }
        pt::mutex gate;
        std::vector<std::thread::id> ids;
    } worker;
    worker.gate.enter();
    const auto start = std::chrono::steady_clock::now();
    worker.start();
    worker.start();
    pt::psleep(30);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_TRUE(worker.get_running() && !worker.get_finished() && worker.ids.empty());
    worker.gate.leave();
    worker.waitfor();
    ASSERT_TRUE(worker.get_finished() && worker.ids.size() == 2);
    EXPECT_TRUE(worker.ids[0] == worker.ids[1] && worker.ids[0] != std::this_thread::get_id());
}
