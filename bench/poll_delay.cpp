// How late the polls of the driver's cycle come on this machine, in its own time: the real runner
// thread polls a card that always has a buffer to exchange, and takes what permission it gets.
// Another thread takes the packets, as a client does.
//
//   poll_delay SECONDS
//
// Prints one line; it tells how the runner thread was scheduled. Exit status: 0, 1 when there were
// no polls, 2 wrong usage.
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "BenchCard.h"
#include "javaint/DSPRunner.h"
#include "javaint/MessageDispatcher.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr std::uint64_t kPollInterval_us = 100'000;

class PolledCard : public BenchCard {
  public:
    explicit PolledCard(std::size_t mostPolls) : BenchCard(4), polls(mostPolls) { running = true; }

    std::uint32_t in(std::uint16_t port, int bytes) override {
        if (afterPass && count < polls.size()) {
            afterPass = false;
            polls[count] = Clock::now();
            policy = sched_getscheduler(0);
            ++count;
        }
        return BenchCard::in(port, bytes);
    }
    bool sleep(std::uint64_t microseconds) override {
        afterPass = microseconds == kPollInterval_us;
        return false;  // for real
    }

    // How much later than its interval after the one before each poll came, sorted.
    std::vector<double> delays_ms() const {
        std::vector<double> delays;
        for (std::size_t i = 1; i < count; ++i) {
            delays.push_back(Milliseconds(polls[i] - polls[i - 1]).count() -
                             kPollInterval_us / 1e3);
        }
        std::sort(delays.begin(), delays.end());
        return delays;
    }
    const char* howScheduled() const {
        return policy == SCHED_FIFO ? "SCHED_FIFO" : policy == SCHED_OTHER ? "SCHED_OTHER" : "?";
    }

  private:
    bool afterPass = false;
    std::vector<Clock::time_point> polls;
    std::atomic<std::size_t> count{0};
    std::atomic<int> policy{-1};
};

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc == 2 ? std::atoi(argv[1]) : 0;
    if (seconds < 1) {
        std::fprintf(stderr, "usage: poll_delay SECONDS\n");
        return 2;
    }
    // Polls come for as long as the process lives.
    static PolledCard card(static_cast<std::size_t>(seconds) * 1'000'000 / kPollInterval_us);
    DSPRunner::getInstance().startDSPs();
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        while (Packet* const packet = MessageDispatcher::getInstance().getPacketFromSendQueue()) {
            delete packet;
        }
    }
    const std::vector<double> delays = card.delays_ms();
    if (delays.empty()) {
        std::fprintf(stderr, "poll_delay: no polls; was the card found?\n");
        std::quick_exit(1);
    }
    std::printf("%s, %zu polls: 99.9 %% at most %.1f ms late, worst %.1f ms\n", card.howScheduled(),
                delays.size(), delays[(delays.size() * 999 + 999) / 1000 - 1], delays.back());
    std::fflush(stdout);
    std::quick_exit(0);
}
