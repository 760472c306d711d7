// One exchange of a transfer buffer, as the driver's own cycle makes it, beside the least that any
// driver would have to do: the same port accesses, trapped alike, each word of the buffer read
// once, the playback audio written, and one audio packet made, filled and queued.
//
//   exchange_bench CHANNELS [Google Benchmark's options]     CHANNELS: 4 or 8
//
// A process has one board manager, hence one kind of card for each run.
#include <benchmark/benchmark.h>
#include <sys/io.h>
#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchCard.h"
#include "BoardMgr.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "javaint/MessageDispatcher.h"

namespace {

constexpr int kPacketBytes = 2402;
constexpr int kWordsOfBuffer = 0x800;

struct EndOfRun {};

void discardOldestPacket() {
    const std::unique_ptr<Packet> oldest(MessageDispatcher::getInstance().getPacketFromSendQueue());
    if (oldest == nullptr) {
        throw std::logic_error("a pass without an exchange");
    }
}

// Runs the driver's cycle; afterEach comes at the end of each pass and ends the run with EndOfRun.
void runCycle(BenchCard& card, const std::function<void()>& afterEach) {
    constexpr int kUntouched = 6;  // the cycle releases its first buffers without an exchange
    int passes = 0;
    card.running = true;
    card.onSleep = [&] {
        if (++passes > kUntouched) {
            afterEach();
        }
    };
    try {
        BoardMgr::getInstance().readWriteDSPs();
    } catch (const EndOfRun&) {
        card.onSleep = nullptr;
    }
}

void driverExchange(benchmark::State& state, BenchCard& card) {
    runCycle(card, [&] {
        discardOldestPacket();
        if (!state.KeepRunning()) {
            throw EndOfRun();
        }
    });
}

// The same while packets wait that the client has not taken.
void driverExchangeWithBacklog(benchmark::State& state, BenchCard& card) {
    constexpr int kWaiting = 100'000;
    for (int i = 0; i < kWaiting; ++i) {
        MessageDispatcher::getInstance().addPacketToSendQueue(new RecordedDataPacket(true, 0));
    }
    driverExchange(state, card);
    while (Packet* const packet = MessageDispatcher::getInstance().getPacketFromSendQueue()) {
        delete packet;
    }
}

double processorTime_ns() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// A long run: what an exchange costs in its first and in its last tenth.
void driverExchangeForLong(benchmark::State& state, BenchCard& card, int length) {
    constexpr int kBlock = 100;
    std::vector<double> blocks;
    for (auto _ : state) {
        int exchanges = 0;
        double start = processorTime_ns();
        runCycle(card, [&] {
            discardOldestPacket();
            if (++exchanges % kBlock == 0) {
                const double now = processorTime_ns();
                blocks.push_back((now - start) / kBlock);
                start = now;
            }
            if (exchanges == length) {
                throw EndOfRun();
            }
        });
    }
    const auto tenth = static_cast<std::ptrdiff_t>(blocks.size() / 10);
    state.counters["first_ns"] = median({blocks.begin(), blocks.begin() + tenth});
    state.counters["last_ns"] = median({blocks.end() - tenth, blocks.end()});
}

// What no driver can do without.
template <class Transfer>
class Floor {
  public:
    explicit Floor(BenchCard& benchCard) : card(benchCard) {}

    void exchange() {
        const int buffer = card.handedOver();
        findBuffer(buffer);
        moveWords(buffer);
        findBuffer(buffer);  // it must still be held out
        const auto port = static_cast<std::uint16_t>(buffer == 0 ? 0x302 : 0x304);
        benchmark::DoNotOptimize(inw(port));
        outw(0x1A, port);
        discardOldest();
    }
    void exchangeWithoutPorts() {
        moveWords(0);
        discardOldest();
    }

  private:
    using Bytes = std::unique_ptr<unsigned char[]>;

    static void findBuffer(int buffer) {
        benchmark::DoNotOptimize(inw(0x302));
        if (buffer == 1) {
            benchmark::DoNotOptimize(inw(0x304));
        }
    }
    void moveWords(int buffer) {
        const volatile std::uint16_t* const from = card.words() + buffer * kWordsOfBuffer;
        for (std::size_t i = 0; i < std::size(host.words); ++i) {
            host.words[i] = from[i];
        }
        Bytes packet(new unsigned char[kPacketBytes]);
        std::size_t used = 2;
        for (const auto& port : host.transfer.recordingPortData) {
            std::memcpy(&packet[used], port.voiceBuffer, sizeof(port.voiceBuffer));
            used += sizeof(port.voiceBuffer);
        }
        {
            const std::lock_guard<std::mutex> guard(lock);
            queue.push_back(std::move(packet));
        }
        const auto& audio = host.transfer.playbackPortData.voiceBuffer;
        volatile std::uint16_t* const to = card.words() + (buffer ^ 1) * kWordsOfBuffer +
                                           offsetof(Transfer, playbackPortData) / 2 + 4;
        for (std::size_t i = 0; i < std::size(audio); ++i) {
            to[i] = audio[i];
        }
    }
    void discardOldest() {
        const std::lock_guard<std::mutex> guard(lock);
        queue.pop_front();
    }

    BenchCard& card;
    union {
        Transfer transfer{};
        std::uint16_t words[sizeof(Transfer) / 2];
    } host;
    std::mutex lock;
    std::deque<Bytes> queue;
};

// The steps of an exchange that touch no port.
template <class Board, class Transfer>
void driverWithoutPorts(benchmark::State& state) {
    auto& board = static_cast<Board&>(*BoardMgr::getInstance().getBoard(0));
    Transfer locked{};
    Transfer other{};
    for (auto _ : state) {
        board.transferBufferFromCard(&locked, 0);
        board.sendPackets();
        board.handleAnyCommands(nullptr);
        board.fillWithSilence(&other);
        board.transferBufferToCard(&other, 1);
        discardOldestPacket();
    }
}

template <class Board, class Transfer>
void registerFor(const std::string& name, BenchCard& card, int longRun) {
    using benchmark::RegisterBenchmark;
    using benchmark::State;
    const auto floor = std::make_shared<Floor<Transfer>>(card);
    RegisterBenchmark((name + "/floor").c_str(), [&card, floor](State& state) {
        card.running = true;
        while (state.KeepRunning()) {
            floor->exchange();
        }
    });
    RegisterBenchmark((name + "/driver").c_str(),
                      [&card](State& state) { driverExchange(state, card); });
    RegisterBenchmark((name + "/bare_floor").c_str(), [floor](State& state) {
        for (auto _ : state) {
            floor->exchangeWithoutPorts();
        }
    });
    RegisterBenchmark((name + "/bare_driver").c_str(), driverWithoutPorts<Board, Transfer>);
    RegisterBenchmark((name + "/backlog").c_str(),
                      [&card](State& state) { driverExchangeWithBacklog(state, card); });
    RegisterBenchmark(
        (name + "/long_run").c_str(),
        [&card, longRun](State& state) { driverExchangeForLong(state, card, longRun); })
        ->Iterations(1)
        ->Repetitions(1);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const int channels = argc > 1 ? std::atoi(argv[1]) : 0;
    const int longRun = argc > 2 ? std::atoi(argv[2]) : 0;
    if (argc != 3 || (channels != 4 && channels != 8) || longRun < 1000) {
        std::cerr << "usage: exchange_bench 4|8 EXCHANGES [--benchmark_...]\n"
                     "  EXCHANGES: of the long run, 1000 or more\n";
        return 2;
    }
    BenchCard card(channels);
    if (BoardMgr::getInstance().getNumberOfBoards() != 1) {
        std::cerr << "exchange_bench: the card was not found\n";
        return 1;
    }
    if (channels == 4) {
        registerFor<DSPBoardFourChannel, DSPTransferFourChannel>("exchange_4", card, longRun);
    } else {
        registerFor<DSPBoardEightChannel, DSPTransferEightChannel>("exchange_8", card, longRun);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
