// A client that has not polled for long takes all that waits: what a packet costs then.
#include <benchmark/benchmark.h>

#include <thread>

#include "javaint/MessageDispatcher.h"

namespace {

void drain(benchmark::State& state) {
    MessageDispatcher& dispatcher = MessageDispatcher::getInstance();
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < state.range(0); ++i) {
            dispatcher.addPacketToSendQueue(new TriggerPacket(true, 0));
        }
        state.ResumeTiming();
        while (Packet* const packet = dispatcher.getPacketFromSendQueue()) {
            delete packet;
        }
    }
    state.counters["packet_ns"] = benchmark::Counter(
        static_cast<double>(state.range(0)) * 1e-9,
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(drain)->RangeMultiplier(10)->Range(1'000, 1'000'000);

}  // namespace

int main(int argc, char** argv) {
    // The C library locks nothing as long as there has been one thread only; an application has
    // several.
    std::thread([] {}).join();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
