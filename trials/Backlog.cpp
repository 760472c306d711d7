// A client that stays away, then takes all that has waited: nothing may be missing, and taking a
// packet must not cost more because many wait.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include "BoardMgr.h"
#include "Trials.h"
#include "javaint/MessageDispatcher.h"
#include "pc/SimulatedPc.h"

namespace trials {

namespace {

constexpr unsigned kLimit_s = 1800;
// A queue that moves all that wait would cost a hundred times more; a busy machine costs twice.
constexpr double kMostMoreForAPacket = 5;
constexpr std::size_t kPart = 1000;  // packets that are timed together

using Clock = std::chrono::steady_clock;

// The time for a packet in the middle of all parts, sorted by time: what a busy machine does to
// some of them does not count.
double medianTime_ns(std::vector<double> parts) {
    const auto middle = parts.begin() + static_cast<std::ptrdiff_t>(parts.size() / 2);
    std::nth_element(parts.begin(), middle, parts.end());
    return *middle / kPart;
}

std::uint32_t counterIn(const Packet& packet) {
    const unsigned char* const audio = packet.getData() + 2;
    return static_cast<std::uint32_t>(audio[2] | audio[3] << 8 | audio[4] << 16 | audio[5] << 24);
}

class Backlog {
  public:
    explicit Backlog(std::uint64_t minutes)
        : pc(cardsim::SimulatedPc::Options::with(4, 8)), pause_ms(minutes * 60'000) {}

    Outcome outcome() {
        BoardMgr& manager = BoardMgr::getInstance();
        manager.bootload();
        pc.endAt(pause_ms);
        try {
            manager.readWriteDSPs();
        } catch (const cardsim::PowerOff&) {
        }
        const std::uint64_t exchanged =
            pc.report().cards[0].served + pc.report().cards[1].served - kWarmUpBuffers;
        drain();
        if (result.runs != exchanged) {
            result.findings.push_back(std::to_string(exchanged) + " buffers were exchanged, but " +
                                      std::to_string(result.runs) + " packets came");
        }
        judgeTimes();
        return result;
    }

  private:
    static constexpr std::uint64_t kWarmUpBuffers = 6;

    void drain() {
        Clock::time_point start = Clock::now();
        while (const std::unique_ptr<Packet> packet{
            MessageDispatcher::getInstance().getPacketFromSendQueue()}) {
            check(*packet);
            if (++result.runs % kPart == 0) {
                const Clock::time_point end = Clock::now();
                parts.push_back(std::chrono::duration<double, std::nano>(end - start).count());
                start = end;
            }
        }
    }

    void check(const Packet& packet) {
        if (packet.getType() != PACKET_RECORDED_DATA) {
            result.findings.push_back("packet " + std::to_string(result.runs) + " is of type " +
                                      std::to_string(packet.getType()));
            return;
        }
        std::uint32_t& last = lastCounter[packet.getData()[1] == 0 ? 0 : 1];
        const std::uint32_t counter = counterIn(packet);
        if (last != 0 && counter != last + 1) {
            result.findings.push_back("packet " + std::to_string(result.runs) + ": transfer " +
                                      std::to_string(counter) + " after " + std::to_string(last));
        }
        last = counter;
    }

    void judgeTimes() {
        const auto half = parts.begin() + static_cast<std::ptrdiff_t>(parts.size() / 2);
        if (parts.size() < 4) {
            result.findings.emplace_back("too few packets to time");
            return;
        }
        const double early = medianTime_ns({parts.begin(), half});
        const double late = medianTime_ns({half, parts.end()});
        char figures[120];
        std::snprintf(figures, sizeof figures,
                      "%.0f ns a packet while more than half of them wait, %.0f ns after", early,
                      late);
        result.notes.emplace_back(figures);
        if (early > kMostMoreForAPacket * late) {
            result.findings.emplace_back("a packet costs more when many wait");
        }
    }

    cardsim::SimulatedPc pc;
    const std::uint64_t pause_ms;
    std::uint32_t lastCounter[2] = {};
    std::vector<double> parts;
    Outcome result;
};

}  // namespace

Outcome drainBacklog(std::uint64_t minutes) {
    return runApart(
        "backlog", [minutes] { return Backlog(minutes).outcome(); }, kLimit_s);
}

}  // namespace trials
