// Sending firmware to a DSP: what a byte costs, beside the five port accesses that the handshake of
// a card takes that answers at once, trapped alike.
#include <benchmark/benchmark.h>
#include <sys/io.h>

#include "BenchCard.h"
#include "DSPBootLoader.h"
#include "DirectIO.h"

namespace {

BenchCard& card() {
    static BenchCard only(4);
    return only;
}

void takePorts() {
    card().bytes = card().accesses = 0;
    DirectIO().allowPortAccess();
}

void countAccesses(benchmark::State& state) {
    state.counters["accesses"] =
        static_cast<double>(card().accesses) / static_cast<double>(card().bytes);
}

void bootFloor(benchmark::State& state) {
    takePorts();
    for (auto _ : state) {
        benchmark::DoNotOptimize(inw(0x302));
        outw(0x55, 0x300);
        outw(0x0A, 0x302);
        benchmark::DoNotOptimize(inw(0x302));
        outw(0x1A, 0x302);
    }
    countAccesses(state);
}
BENCHMARK(bootFloor)->Name("boot_floor");

void bootDriver(benchmark::State& state) {
    takePorts();
    DSPBootloader loader;
    loader.init(0x300, 4, 0);
    for (auto _ : state) {
        if (!loader.bootByte(0x55)) {
            state.SkipWithError("the card did not take a byte");
        }
    }
    countAccesses(state);
}
BENCHMARK(bootDriver)->Name("boot_driver");

}  // namespace

BENCHMARK_MAIN();
