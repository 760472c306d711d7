// The queues between the cards and the client, and the ring of the monitor buffer, each beside the
// bare containers and copies that the same work takes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "CircularBuffer.h"
#include "javaint/MessageDispatcher.h"

namespace {

void queueFloor(benchmark::State& state) {
    static std::mutex lock;
    static std::deque<void*> queue;
    void* packet = &state;
    for (auto _ : state) {
        {
            const std::lock_guard<std::mutex> guard(lock);
            queue.push_back(packet);
        }
        const std::lock_guard<std::mutex> guard(lock);
        packet = queue.front();
        queue.pop_front();
    }
}
BENCHMARK(queueFloor)->Name("queue_1_floor");
BENCHMARK(queueFloor)->Name("queue_2_floor")->Threads(2)->UseRealTime();

void queueDriver(benchmark::State& state) {
    MessageDispatcher& dispatcher = MessageDispatcher::getInstance();
    Packet* packet = new TriggerPacket(true, 0);
    for (auto _ : state) {
        dispatcher.addPacketToSendQueue(packet);
        packet = dispatcher.getPacketFromSendQueue();
    }
    delete packet;
}
BENCHMARK(queueDriver)->Name("queue_1_driver");
BENCHMARK(queueDriver)->Name("queue_2_driver")->Threads(2)->UseRealTime();

// A client that has not polled for long takes all that waits.
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

constexpr int kBytes = 600;

void ringFloor(benchmark::State& state) {
    char from[kBytes] = {};
    char storage[kBytes];
    char to[kBytes];
    for (auto _ : state) {
        benchmark::DoNotOptimize(from);
        std::memcpy(storage, from, kBytes);
        benchmark::DoNotOptimize(storage);
        std::memcpy(to, storage, kBytes);
        benchmark::DoNotOptimize(to);
    }
}
BENCHMARK(ringFloor)->Name("ring_floor");

void ringDriver(benchmark::State& state) {
    char from[kBytes] = {};
    char to[kBytes];
    CCircularBuffer<char, kBytes, false> ring;
    for (auto _ : state) {
        benchmark::DoNotOptimize(from);
        ring.Write(from, kBytes);
        ring.Read(to, kBytes);
        benchmark::DoNotOptimize(to);
    }
}
BENCHMARK(ringDriver)->Name("ring_driver");

}  // namespace

int main(int argc, char** argv) {
    // The C library locks nothing as long as there has been one thread only; an application has
    // several.
    std::thread([] {}).join();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
