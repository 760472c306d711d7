// Everything at once, from a seed: which cards there are, calls on their lines, faults of the
// cards, and a client whose calls fall anywhere: between two passes of the driver's cycle, and in
// the middle of one, at an access to a port, at a word of card memory, at a packet. All of it on
// one thread and in virtual time, so that a seed gives the same run each time.
#include <CLI/CLI.hpp>
#include <cinttypes>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "BoardMgr.h"
#include "JavaVm.h"
#include "MonitorBuffer.h"
#include "ReferenceHost.h"
#include "javaint/MessageDispatcher.h"
#include "model/Traffic.h"
#include "pc/SimulatedPc.h"

namespace {

using cardsim::Fault;
using cardsim::FaultKind;
using namespace trials;

constexpr double kBetweenPasses = 0.15, kInPass = 0.02, kInBoot = 0.0003;  // a call falls there
constexpr double kStaysAway = 0.003, kLocksUp = 0.2, kTalksNonsense = 0.2;
constexpr int kResetSettle_us = 100, kPoll_us = 100'000, kAfterBoot_us = 1'000'000;  // sleeps
// Of each kind of fault, up to how late one strikes.
constexpr std::uint64_t kOpportunities[] = {15'000, 6,   3'000, 3'000, 3,  100,
                                            100,    100, 100,   100,   100};
static_assert(std::size(kOpportunities) == std::size(cardsim::kFaultDescriptions));

cardsim::SimulatedPc::Options planOf(std::uint64_t seed) {
    cardsim::Random random(seed, 1);
    const int first = random.chance(0.5) ? 4 : 8,
              second = 4 * static_cast<int>(random.between(0, 2));
    auto options = cardsim::SimulatedPc::Options::with(first, second);
    options.seed = seed;
    options.faults.resize(static_cast<std::size_t>(random.between(0, 4)));
    for (Fault& fault : options.faults) {
        fault.kind = static_cast<FaultKind>(random.between(0, std::size(kOpportunities) - 1));
        fault.kind = random.chance(kLocksUp) ? FaultKind::kCounterStuck : fault.kind;
        fault.kind = random.chance(kTalksNonsense) ? FaultKind::kNonsense : fault.kind;
        fault.field = static_cast<cardsim::FaultField>(random.between(0, 9));
        fault.probability = random.chance(0.5) ? 1 : 0.3;
        fault.card = static_cast<int>(random.between(0, 2)) - 1;
        fault.first = random.between(1, kOpportunities[static_cast<int>(fault.kind)]);
        fault.last = fault.first + (random.chance(0.5) ? 0 : random.between(0, 100));
    }
    return options;
}

class Schedule : public cardsim::SimulatedPc {
  public:
    explicit Schedule(std::uint64_t number)
        : SimulatedPc(planOf(number)), seed(number), random(number, 2), plan(planOf(number)) {
        cardsim::planTraffic(cards(), seed);
        end_us = random.between(30'000'000, 120'000'000);
    }

    void run() {
        host = ReferenceHost({vm.channelsOf(0), vm.channelsOf(1)});
        events.clear();
        isOpen = isBooting = true;
        BoardMgr::getInstance().bootload();
        judge(kAfterBoot_us);
        tell([](auto& to) { to.setRecording(true); });
        try {
            BoardMgr::getInstance().readWriteDSPs();
        } catch (const cardsim::PowerOff&) {
        }
        std::printf("seed %" PRIu64 ": %" PRIu64 " exchanges, %" PRIu64
                    " calls inside a pass, %" PRIu64 " faults, digest %016" PRIx64 "\n",
                    seed, host.exchanges, callsInside,
                    report().cards[0].faults + report().cards[1].faults,
                    report().timeline ^ report().portAccesses);
    }
    std::uint32_t in(std::uint16_t port, int bytes) override {
        Event& event = note(kRead, port);
        act();
        SimulatedPc::sleep(isBooting ? 100 : 0);  // a slower host finds out no later
        return event.value = SimulatedPc::in(port, bytes);
    }
    void out(std::uint16_t port, int bytes, std::uint32_t value) override {
        note(value == 0x1A ? kRelease : "write to port ", port);
        act();
        SimulatedPc::out(port, bytes, value);
    }
    bool sleep(std::uint64_t microseconds) override {
        if (microseconds != kResetSettle_us) {
            judge(microseconds);
        }
        SimulatedPc::sleep(microseconds);
        if (microseconds == kPoll_us) {
            now() < end_us ? beClient() : throw cardsim::PowerOff();
        }
        return true;
    }
    // Words of card memory are moved, in two parts.
    template <class Move>
    void move(const char* kind, const void* address, int words, const Move& part) {
        const auto* const start = static_cast<const unsigned char*>(address);
        const int first = pick(static_cast<std::uint64_t>(words));
        Event& event =
            note(kind, static_cast<const char*>(address) - BoardMgr::getInstance().getDSPMemory());
        part(0, first);
        act();
        part(first, words - first);
        event.bytes.assign(start, start + 2 * words);
    }
    void feed(int bytes) {
        note(kFeed, bytes);
        act();
    }
    void queue(const Packet& packet) {
        note(kPacket, packet.getType())
            .bytes.assign(packet.getData(), packet.getData() + packet.getLength());
    }
    // A moment at which a call of the client may fall.
    void act() {
        if (isOpen && !isCalling && random.chance(isBooting ? kInBoot : kInPass)) {
            ++callsInside;
            call();
        }
    }

    const std::uint64_t seed;
    ReferenceHost host{{0, 0}};

  private:
    Event& note(const char* kind, long number) {
        return events.emplace_back(Event{kind + std::to_string(number)});
    }
    void judge(std::uint64_t sleep_us) {
        note(kSleep, static_cast<long>(sleep_us));
        if (sleep_us == kAfterBoot_us) {
            judgeBoot();
        } else {
            host.judgePass(events);
        }
        isBooting = sleep_us > kAfterBoot_us;
        events.clear();
    }
    void judgeBoot() {
        const bool mayFail =
            std::any_of(plan.faults.begin(), plan.faults.end(),
                        [](const Fault& fault) { return fault.kind <= FaultKind::kDeadAfterBoot; });
        host.judgeBoot(events, mayFail);
        ++boots;
        for (const int slot : {0, 1}) {
            const int channels = plan.channels[slot];
            if (!mayFail && channels != 0 &&
                (vm.channelsOf(slot) != channels || report().cards[slot].boots != boots)) {
                deviate("firmware of card " + std::to_string(slot), "started", "not");
            }
        }
    }

    void call() {
        const std::function<void()> calls[] = {
            [this] { sendSettings(); },
            [this] {
                for (std::uint64_t left = random.between(1, 12); left > 0; --left) {
                    send(PACKET_PLAYBACK_DATA, random.between(0, 700), {255});
                }
            },
            [this] { tell([on = random.chance(0.6)](auto& to) { to.setPlayback(on); }); },
            [this] { tell([line = pick(16)](auto& to) { to.setMonitoring(line); }); },
            [this] { tell([](auto& to) { to.setMonitoring(-1); }); },
            [this] { tell([on = random.chance(0.8)](auto& to) { to.setRecording(on); }); },
            [this] { takePackets(random.between(0, 3)); },
        };
        isCalling = true;
        calls[pick(std::size(calls) - 1)]();
        isCalling = false;
    }
    // After a pass.
    void beClient() {
        if (random.chance(kBetweenPasses)) {
            call();
        }
        away = away > 0 ? away - 1 : random.chance(kStaysAway) ? random.between(1, 300) : 0;
        takePackets(away > 0 ? 0 : UINT64_MAX);
    }
    int pick(std::uint64_t most) { return static_cast<int>(random.between(0, most)); }
    // Each byte up to what its place in the pattern says.
    void send(int type, std::uint64_t count, const std::vector<std::uint64_t>& most) {
        Bytes bytes;
        while (bytes.size() < count) {
            bytes.push_back(byteOf(pick(most[bytes.size() % most.size()])));
        }
        tell([=](auto& to) { to.send(type, bytes); });
    }
    void sendSettings() {
        send(PACKET_LINE_SETTINGS, random.chance(0.8) ? 48 : random.between(0, 60), {3, 8, 70});
    }

    // The driver hears it now, the reference host when it comes to this event.
    template <class Call>
    void tell(const Call& what) {
        what(vm);
        events.emplace_back(Event{"call"}).call = [this, what] { what(host); };
    }
    void takePackets(std::uint64_t atMost) {
        while (atMost > 0 && !vm.getPacket().empty()) {
            --atMost;
        }
    }

    cardsim::Random random;
    const Options plan;
    JavaVm vm;
    Events events;  // since the last sleep began
    std::uint64_t end_us = 0, away = 0, callsInside = 0, boots = 0;
    bool isOpen = false, isCalling = false, isBooting = false;
};

Schedule* schedule = nullptr;

}  // namespace

void trials::deviate(const std::string& what, const std::string& due, const std::string& got) {
    std::printf("FOUND seed %" PRIu64 ", pass %" PRIu64 ", card %d, %s: expected %s, got %s\n",
                schedule->seed, schedule->host.passes, schedule->host.slot, what.c_str(),
                due.c_str(), got.c_str());
    std::fflush(stdout);
    std::_Exit(1);
}

// The parts of the driver call each other through these, see CMakeLists.txt.
extern "C" {
void __real__Z13MemReadBlockWPKvmPti(const void*, unsigned long, std::uint16_t*, int);
void __wrap__Z13MemReadBlockWPKvmPti(const void* base, unsigned long offset, std::uint16_t* to,
                                     int words) {
    schedule->move(kCopy, static_cast<const char*>(base) + offset, words, [=](int first, int n) {
        __real__Z13MemReadBlockWPKvmPti(base, offset + 2 * first, to + first, n);
    });
}
void __real__Z14MemWriteBlockWPvmPKti(void*, unsigned long, const std::uint16_t*, int);
void __wrap__Z14MemWriteBlockWPvmPKti(void* base, unsigned long offset, const std::uint16_t* from,
                                      int words) {
    schedule->move(kStore, static_cast<char*>(base) + offset, words, [=](int first, int n) {
        __real__Z14MemWriteBlockWPvmPKti(base, offset + 2 * first, from + first, n);
    });
}
void __real__ZN13MonitorBuffer7addDataEPKci(MonitorBuffer*, const char*, int);
void __wrap__ZN13MonitorBuffer7addDataEPKci(MonitorBuffer* buffer, const char* audio, int size) {
    schedule->feed(size);
    __real__ZN13MonitorBuffer7addDataEPKci(buffer, audio, size);
}
void __real__ZN17MessageDispatcher20addPacketToSendQueueEP6Packet(MessageDispatcher*, Packet*);
void __wrap__ZN17MessageDispatcher20addPacketToSendQueueEP6Packet(MessageDispatcher* dispatcher,
                                                                  Packet* packet) {
    schedule->queue(*packet);
    __real__ZN17MessageDispatcher20addPacketToSendQueueEP6Packet(dispatcher, packet);
    schedule->act();
}
}

int main(int argc, char** argv) {
    CLI::App app("Lets the driver serve simulated cards as a seed wants it, and judges it.");
    app.footer(
        "Prints one line: what happened, or FOUND and what should not have happened.\n"
        "Exit status: 0 nothing found, 1 something found, 2 wrong usage.");
    std::uint64_t seed = 0;
    app.add_option("--seed", seed, "from which everything follows")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    std::filesystem::current_path(DEMONSTRATION_FIRMWARE);
    std::cout.rdbuf(nullptr);
    std::cerr.rdbuf(nullptr);
    Schedule run(seed);
    schedule = &run;
    run.run();
    return 0;
}
