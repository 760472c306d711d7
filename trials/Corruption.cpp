// A DSP that puts anything into any word of its transfer buffer.
#include <filesystem>

#include "ObservedRun.h"
#include "Trials.h"
#include "model/Traffic.h"

namespace trials {

namespace {

constexpr int kWays = 18;  // all zeros, all ones, and each of 16 bits turned over
constexpr unsigned kLimit_s = 1800;

std::uint16_t corrupted(std::uint16_t word, int way) {
    switch (way) {
        case 0:
            return 0;
        case 1:
            return 0xFFFF;
        default:
            return static_cast<std::uint16_t>(word ^ 1u << (way - 2));
    }
}

// One word after the other, one with each buffer that the card hands over.
class Corruption {
  public:
    Corruption(int channels, std::uint64_t wordsApart)
        : run(cardsim::SimulatedPc::Options::with(channels)),
          words(cardsim::layoutOf(channels).words),
          every(static_cast<int>(wordsApart)) {
        cardsim::planTraffic(run.pc().cards(), 1);
    }

    Outcome outcome() {
        run.boot();
        run.setRecording(true);
        run.send(PACKET_LINE_SETTINGS, {0, TS_OFF_HOOK, 3, 0, TS_VOX_1, 1, 0, TS_NEVER, 0});
        run.cycle([this] {
            corruptNext();
            run.takePackets(kPacketsOfAPass);
        });
        run.takeAllPackets();
        return result;
    }

  private:
    static constexpr std::uint64_t kPacketsOfAPass = 100;

    void corruptNext() {
        cardsim::Card& card = run.pc().card(0);
        const std::uint64_t handOvers = run.pc().report().cards[0].handOvers;
        if (handOvers == corruptedHandOver) {
            return;
        }
        for (const int buffer : {0, 1}) {
            const auto port = static_cast<std::uint16_t>(cardsim::portMap::kControl + 2 * buffer);
            if ((card.in(port, run.pc().now()) & cardsim::portMap::kHandedOver) != 0) {
                corruptIn(run.pc().memory() + buffer * cardsim::layout::kSecondBuffer);
                corruptedHandOver = handOvers;
                return;
            }
        }
    }

    void corruptIn(volatile std::uint16_t* buffer) {
        if (word >= words) {
            throw cardsim::PowerOff();
        }
        const std::uint16_t before = buffer[word];
        buffer[word] = corrupted(before, way);
        ++result.runs;
        result.faults += buffer[word] != before ? 1 : 0;
        if (++way == kWays) {
            way = 0;
            word += every;
        }
    }

    ObservedRun run;
    const int words;
    const int every;
    int word = 0;
    int way = 0;
    std::uint64_t corruptedHandOver = 0;
    Outcome result;
};

}  // namespace

Outcome corruptBuffers(std::uint64_t every) {
    static constexpr int kKinds[] = {4, 8};
    Outcome all;
    runAllApart(
        2, [](std::uint64_t number) { return std::to_string(kKinds[number]) + "-channel card"; },
        [every](std::uint64_t number) { return Corruption(kKinds[number], every).outcome(); },
        [&all](std::uint64_t number, const Outcome& outcome) {
            all.add(outcome);
            showProgress("corruption", number + 1, 2);
        },
        kLimit_s);
    return all;
}

}  // namespace trials
