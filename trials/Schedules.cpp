// Everything at once, from a seed: which cards there are, calls on their lines, faults of the
// cards, what the client sets and plays, and how long it stays away.
#include <algorithm>
#include <cstdio>

#include "ObservedRun.h"
#include "Trials.h"
#include "model/Audio.h"
#include "model/Random.h"
#include "model/Traffic.h"

namespace trials {

namespace {

using cardsim::Fault;
using cardsim::FaultKind;
using cardsim::Random;

constexpr std::uint64_t kStream = 0x5C4ED;
constexpr double kTogether = 0.4;  // two faults strike at the same time
constexpr std::uint64_t kTenSeconds_ms = 10'000;
constexpr unsigned kLimit_s = 120;

// After these what the host sees is no longer what the DSP did.
constexpr FaultKind kDeceiving[] = {FaultKind::kAbsent,    FaultKind::kByteRefused,
                                    FaultKind::kByteStuck, FaultKind::kDeadAfterBoot,
                                    FaultKind::kWrongEcho, FaultKind::kTakenBack};

class Schedule {
  public:
    explicit Schedule(std::uint64_t runSeed)
        : seed(runSeed), random(seed, kStream), plan(makePlan()), run(plan) {
        cardsim::planTraffic(run.pc().cards(), seed);
        end_ms = random.between(30'000, 180'000);
    }

    Outcome outcome() {
        run.boot();
        run.setRecording(random.chance(0.8));
        run.cycle([this] {
            const std::uint64_t now_ms = run.pc().now() / 1000;
            if (now_ms >= end_ms) {
                throw cardsim::PowerOff();
            }
            if (now_ms + kTenSeconds_ms < end_ms) {
                act();
            }
            take();
        });
        run.takeAllPackets();
        checkAtTheEnd();
        Outcome result;
        result.runs = 1;
        result.faults = run.pc().report().cards[0].faults + run.pc().report().cards[1].faults;
        char digest[80];
        std::snprintf(digest, sizeof digest, "seed %llu: digest %016llx",
                      static_cast<unsigned long long>(seed),
                      static_cast<unsigned long long>(run.digest()));
        result.notes.emplace_back(digest);
        return result;
    }

  private:
    cardsim::SimulatedPc::Options makePlan() {
        constexpr int kPairings[][2] = {{4, 0}, {8, 0}, {4, 4}, {4, 8}, {8, 4}, {8, 8}};
        cardsim::SimulatedPc::Options options;
        const auto& pairing = kPairings[random.between(0, std::size(kPairings) - 1)];
        std::copy_n(pairing, 2, options.channels);
        options.seed = seed;
        for (std::uint64_t faults = random.between(0, 4); faults > 0; --faults) {
            Fault fault = makeFault();
            if (!options.faults.empty() && random.chance(kTogether)) {
                const Fault& other = options.faults.back();
                fault.card = other.card;
                fault.first = other.first;
                fault.last = other.last;
            }
            options.faults.push_back(fault);
        }
        return options;
    }

    Fault makeFault() {
        Fault fault;
        fault.kind = static_cast<FaultKind>(random.between(0, cardsim::kNumFaultKinds - 1));
        fault.card = static_cast<int>(random.between(0, 2)) - 1;
        fault.field = static_cast<cardsim::FaultField>(random.between(0, 9));
        fault.first = random.between(1, opportunitiesOf(fault.kind));
        fault.last = fault.first + (random.chance(0.5) ? 0 : random.between(0, 30));
        fault.probability = random.chance(0.5) ? 1 : 0.3;
        return fault;
    }

    static std::uint64_t opportunitiesOf(FaultKind kind) {
        switch (kind) {
            case FaultKind::kAbsent:
                return 15'000;
            case FaultKind::kWrongEcho:
                return 6;
            case FaultKind::kByteRefused:
            case FaultKind::kByteStuck:
                return 3'000;
            case FaultKind::kDeadAfterBoot:
                return 3;
            default:
                return 300;
        }
    }

    bool hasFault(FaultKind kind) const {
        return std::any_of(plan.faults.begin(), plan.faults.end(),
                           [kind](const Fault& fault) { return fault.kind == kind; });
    }
    bool deceives() const {
        return std::any_of(std::begin(kDeceiving), std::end(kDeceiving),
                           [this](FaultKind kind) { return hasFault(kind); });
    }

    // What the client does after a pass, most of the time nothing.
    void act() {
        if (random.chance(0.02)) {
            run.send(PACKET_LINE_SETTINGS, makeSettings());
        }
        if (random.chance(0.03)) {
            for (std::uint64_t packets = random.between(1, 12); packets > 0; --packets) {
                run.send(PACKET_PLAYBACK_DATA, makeBytes(random.between(0, 700)));
            }
        }
        if (random.chance(0.02)) {
            run.setEnablePlayback(random.chance(0.7));
        }
        if (random.chance(0.02)) {
            run.setMonitorChannel(static_cast<int>(random.between(0, 17)) - 1);
        }
        if (random.chance(0.05)) {
            run.setMonitorChannel(-1);
        }
        if (random.chance(0.01)) {
            run.setRecording(random.chance(0.7));
        }
        if (random.chance(0.01)) {
            away = random.between(1, 300);
        }
    }

    // Packets are taken pass by pass, now and then only some, or none for a long time.
    void take() {
        if (away > 0) {
            --away;
            return;
        }
        run.takePackets(random.chance(0.1) ? random.between(0, 3) : 10'000);
    }

    std::vector<unsigned char> makeBytes(std::uint64_t count) {
        std::vector<unsigned char> bytes(static_cast<std::size_t>(count));
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(random.next());
        }
        return bytes;
    }

    std::vector<unsigned char> makeSettings() {
        std::vector<unsigned char> table;
        const std::uint64_t bytes = random.chance(0.8) ? 48 : random.between(0, 60);
        while (table.size() < bytes) {
            table.push_back(static_cast<unsigned char>(random.between(0, 3)));
            table.push_back(static_cast<unsigned char>(random.between(0, 8)));
            table.push_back(static_cast<unsigned char>(random.between(0, 70)));
        }
        table.resize(static_cast<std::size_t>(bytes));
        return table;
    }

    // What the cards themselves say has to agree with what the reference host takes for true.
    void checkAtTheEnd() {
        if (deceives()) {
            return;
        }
        const cardsim::MachineReport& report = run.pc().report();
        std::uint64_t served = 0;
        for (int slot = 0; slot < run.host().numBoards(); ++slot) {
            served += report.cards[slot].served;
            checkSettings(slot);
        }
        if (served != run.host().releases()) {
            throw Deviation("the cards saw " + std::to_string(served) +
                            " buffers released instead of " +
                            std::to_string(run.host().releases()));
        }
    }

    void checkSettings(int slot) {
        if (!run.host().settingsAreOld(slot)) {
            return;
        }
        for (int port = 0; port < run.host().channels(slot); ++port) {
            const auto due = run.host().settings(slot, port);
            const auto& set = run.pc().line(slot, port).settings();
            if (set.beep != due.beep || set.trigger != due.trigger ||
                set.delay_ms != due.delay_ms) {
                throw Deviation("line " + std::to_string(port) + " of card " +
                                std::to_string(slot) + " has other settings than the last command");
            }
        }
    }

    const std::uint64_t seed;
    Random random;
    const cardsim::SimulatedPc::Options plan;
    ObservedRun run;
    std::uint64_t end_ms = 0;
    std::uint64_t away = 0;  // passes until the client comes back
};

}  // namespace

Outcome runSchedules(std::uint64_t firstSeed, std::uint64_t count, bool verbose) {
    Outcome all;
    runAllApart(
        count,
        [firstSeed](std::uint64_t number) { return "seed " + std::to_string(firstSeed + number); },
        [firstSeed](std::uint64_t number) { return Schedule(firstSeed + number).outcome(); },
        [&](std::uint64_t number, const Outcome& outcome) {
            all.add(outcome);
            if (!outcome.findings.empty()) {
                all.findings.push_back("    to see it again: trials schedules --count 1 --seed " +
                                       std::to_string(firstSeed + number));
            }
            if (!verbose) {
                all.notes.clear();
            }
            showProgress("schedules", number + 1, count);
        },
        kLimit_s);
    return all;
}

}  // namespace trials
