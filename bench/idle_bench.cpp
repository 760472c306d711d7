// What the driver takes of the processor while it polls for ever without a card, beside a thread
// that does nothing but sleep as often. In machine time, and both at once.
//
//   idle_bench SECONDS [Google Benchmark's options]
#include <benchmark/benchmark.h>
#include <pasync.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "BoardMgr.h"
#include "traps/Hardware.h"

namespace {

// A PC without cards: nothing answers at any port.
class EmptyPc : public cardsim::Hardware {
  public:
    std::uint32_t in(std::uint16_t, int) override { return ~std::uint32_t{0}; }
    void out(std::uint16_t, int, std::uint32_t) override {}
    int grantPorts() override { return 0; }
    int openPorts() override { return 0; }
    std::string memoryPath() override { return ""; }
    bool sleep(std::uint64_t) override { return false; }
    bool processorTime(std::clock_t&) override { return false; }
};

double processorTime_ms(std::thread& thread) {
    clockid_t clock{};
    pthread_getcpuclockid(thread.native_handle(), &clock);
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) * 1e-6;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const int seconds = argc == 2 ? std::atoi(argv[1]) : 0;
    if (seconds < 1) {
        std::cerr << "usage: idle_bench SECONDS [--benchmark_...]\n";
        return 2;
    }
    static EmptyPc pc;  // both threads are still there when main has returned
    cardsim::attachHardware(&pc);
    BoardMgr::getInstance();
    static std::thread driver([] { BoardMgr::getInstance().readWriteDSPs(); });
    static std::thread sleeper([] {
        while (true) {
            pt::psleep(100);
        }
    });
    benchmark::RegisterBenchmark(
        "idle",
        [seconds](benchmark::State& state) {
            const double driverBefore = processorTime_ms(driver);
            const double sleeperBefore = processorTime_ms(sleeper);
            for (auto _ : state) {
                std::this_thread::sleep_for(std::chrono::seconds(seconds));
            }
            const double minutes = seconds / 60.0;
            state.counters["driver_ms"] = (processorTime_ms(driver) - driverBefore) / minutes;
            state.counters["sleeper_ms"] = (processorTime_ms(sleeper) - sleeperBefore) / minutes;
        })
        ->Iterations(1)
        ->Repetitions(1);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::quick_exit(0);
}
