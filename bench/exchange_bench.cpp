// One exchange of a transfer buffer, as the driver's own cycle makes it, beside the least that any
// driver would have to do: the same port accesses, trapped alike, each word of the buffer read
// once, the playback audio written, and one audio packet made, filled and queued.
//
//   exchange_bench CHANNELS [Google Benchmark's options]     CHANNELS: 4 or 8
//
// A process has one board manager, hence one kind of card for each run.
#include <benchmark/benchmark.h>
#include <sys/io.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "BenchCard.h"
#include "javaint/MessageDispatcher.h"

namespace {

struct EndOfRun {};

void discardOldestPacket() {
    const std::unique_ptr<Packet> oldest(MessageDispatcher::getInstance().getPacketFromSendQueue());
    if (oldest == nullptr) {
        throw std::logic_error("a pass without an exchange");
    }
}

void driverExchange(benchmark::State& state, BenchCard& card) {
    constexpr int kUntouched = 6;  // the cycle releases its first buffers without an exchange
    int passes = 0;
    card.running = true;
    card.onSleep = [&] {
        if (++passes > kUntouched) {
            discardOldestPacket();
            if (!state.KeepRunning()) {
                throw EndOfRun();
            }
        }
    };
    try {
        BoardMgr::getInstance().readWriteDSPs();
    } catch (const EndOfRun&) {
        card.onSleep = nullptr;
    }
}

// What no driver can do without.
template <class Transfer>
class Floor {
  public:
    void exchange(const BenchCard& card) {
        const int buffer = card.handedOver();
        findBuffer(buffer);
        moveWords(buffer);
        findBuffer(buffer);  // it must still be held out
        const auto port = static_cast<std::uint16_t>(kBasePortBoard0 +
                                                     (buffer == 0 ? kStatusPort : kStatusPort1));
        benchmark::DoNotOptimize(inw(port));
        outw(kReleaseBuffer, port);
        const std::lock_guard<std::mutex> guard(lock);
        queue.pop_front();
    }

  private:
    using Bytes = std::unique_ptr<unsigned char[]>;

    static void findBuffer(int buffer) {
        benchmark::DoNotOptimize(inw(kBasePortBoard0 + kStatusPort));
        if (buffer == 1) {
            benchmark::DoNotOptimize(inw(kBasePortBoard0 + kStatusPort1));
        }
    }
    static void copyWords(void* to, const void* from, std::size_t bytes) {
        std::copy_n(static_cast<const volatile std::uint16_t*>(from), bytes / 2,
                    static_cast<volatile std::uint16_t*>(to));
    }
    void moveWords(int buffer) {
        copyWords(&host, BenchCard::transferBuffer<Transfer>(buffer), sizeof(host));
        Bytes packet(new unsigned char[2 + 2400]);
        std::size_t used = 2;
        for (const auto& port : host.recordingPortData) {
            std::memcpy(&packet[used], port.voiceBuffer, sizeof(port.voiceBuffer));
            used += sizeof(port.voiceBuffer);
        }
        {
            const std::lock_guard<std::mutex> guard(lock);
            queue.push_back(std::move(packet));
        }
        const auto& audio = host.playbackPortData.voiceBuffer;
        copyWords(BenchCard::transferBuffer<Transfer>(buffer ^ 1)->playbackPortData.voiceBuffer,
                  audio, sizeof(audio));
    }

    Transfer host{};
    std::mutex lock;
    std::deque<Bytes> queue;
};

template <class Transfer>
void registerFor(const std::string& name, BenchCard& card) {
    benchmark::RegisterBenchmark((name + "_floor").c_str(), [&card](benchmark::State& state) {
        Floor<Transfer> floor;
        card.running = true;
        for (auto _ : state) {
            floor.exchange(card);
        }
    });
    benchmark::RegisterBenchmark((name + "_driver").c_str(),
                                 [&card](benchmark::State& state) { driverExchange(state, card); });
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const int channels = argc == 2 ? std::atoi(argv[1]) : 0;
    if (channels != 4 && channels != 8) {
        std::cerr << "usage: exchange_bench 4|8 [--benchmark_...]\n";
        return 2;
    }
    BenchCard card(channels);
    if (BoardMgr::getInstance().getNumberOfBoards() != 1) {
        std::cerr << "exchange_bench: the card was not found\n";
        return 1;
    }
    if (channels == 4) {
        registerFor<DSPTransferFourChannel>("exchange_4", card);
    } else {
        registerFor<DSPTransferEightChannel>("exchange_8", card);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
