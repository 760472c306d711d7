// What recording adds to a port access, and to the release of a buffer, at which both buffers of
// the card are kept: the same accesses, trapped alike, without and with the recorder in between.
// Another thread takes the records out of the ring, as the launcher does.
#include <benchmark/benchmark.h>
#include <sys/io.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "ScriptedCards.h"
#include "recorder/RecordingHardware.h"

namespace {

// Registers and nothing behind them.
class Registers : public ScriptedCards {
  public:
    std::uint32_t in(std::uint16_t, int) override { return 0; }
    void out(std::uint16_t, int, std::uint32_t) override {}
};

class Recorder {
  public:
    Recorder()
        : recording(registers, *ring,
                    {[this] { return ring->passed_us(); }, [this] { return memory.data(); }}),
          taker([this] {
              for (cardtrace::Record record; !stops;) {
                  while (ring->take(record)) {
                  }
                  std::this_thread::sleep_for(std::chrono::milliseconds(1));
              }
          }) {}
    ~Recorder() {
        stops = true;
        taker.join();
    }

    cardsim::Hardware& hardware(bool records) {
        return records ? static_cast<cardsim::Hardware&>(recording) : registers;
    }

  private:
    Registers registers;
    const std::unique_ptr<cardtrace::RecordRing> ring = std::make_unique<cardtrace::RecordRing>();
    std::vector<std::uint16_t> memory = std::vector<std::uint16_t>(0x2000);
    cardtrace::RecordingHardware recording;
    std::atomic<bool> stops{false};
    std::thread taker;
};

void access(benchmark::State& state, bool records) {
    Recorder recorder;
    cardsim::attachHardware(&recorder.hardware(records));
    ioperm(0x300, 32, 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(inw(0x302));
    }
}

void release(benchmark::State& state, bool records) {
    Recorder recorder;
    cardsim::attachHardware(&recorder.hardware(records));
    ioperm(0x300, 32, 1);
    for (auto _ : state) {
        outw(0x1A, 0x304);
    }
}

BENCHMARK_CAPTURE(access, plain, false);
BENCHMARK_CAPTURE(access, recorded, true);
BENCHMARK_CAPTURE(release, plain, false);
BENCHMARK_CAPTURE(release, recorded, true);

}  // namespace

BENCHMARK_MAIN();
