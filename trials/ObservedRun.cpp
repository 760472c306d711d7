#include "ObservedRun.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "javaint/MessageDispatcher.h"

namespace trials {

namespace {

constexpr std::uint64_t kPassSleep_us = 100'000;

MessageDispatcher& dispatcher() {
    return MessageDispatcher::getInstance();
}

std::string nameOf(int type, const std::vector<unsigned char>& payload) {
    std::string name = "packet of type " + std::to_string(type) + " and " +
                       std::to_string(payload.size()) + " bytes";
    for (std::size_t i = 0; i < std::min<std::size_t>(payload.size(), 4); ++i) {
        name += (i == 0 ? ": " : " ") + std::to_string(payload[i]);
    }
    return name;
}

}  // namespace

ObservedRun::ObservedRun(const cardsim::SimulatedPc::Options& options)
    : simulatedPc(options),
      boardManager(BoardMgr::getInstance()),
      referenceHost(judgeDetection()) {}

Detected ObservedRun::judgeDetection() {
    const std::vector<Access> record = simulatedPc.takeRecord();
    rememberAll(record);
    Replay bus(record, 0);
    const Detected due = referenceDetection(bus);
    bus.end();
    if (due.boards != boardManager.getNumberOfBoards()) {
        throw Deviation("detection: " + std::to_string(boardManager.getNumberOfBoards()) +
                        " boards where " + std::to_string(due.boards) + " were due");
    }
    return due;
}

void ObservedRun::boot() {
    const std::uint64_t start = simulatedPc.now();
    MemoryImage due = simulatedPc.memoryNow();
    const bool booted = boardManager.bootload();
    const std::vector<Access> record = simulatedPc.takeRecord();
    rememberAll(record);
    Replay bus(record, start);
    if (referenceHost.boot(bus, due) != booted) {
        throw Deviation("the boot says that it has gone the other way");
    }
    bus.end();
    if (simulatedPc.memoryNow() != due) {
        throw Deviation("the boot leaves other words in card memory than were due");
    }
}

void ObservedRun::cycle(std::function<void()> client) {
    beginPass();
    simulatedPc.onSleep(
        kPassSleep_us, [this] { judgePass(); },
        [this, &client] {
            client();
            beginPass();
        });
    try {
        boardManager.readWriteDSPs();
    } catch (const cardsim::PowerOff&) {
    }
}

void ObservedRun::beginPass() {
    passStart = simulatedPc.now();
    turnsBefore = turns();
    memoryBefore = simulatedPc.memoryNow();
}

void ObservedRun::judgePass() {
    const PassMemory memory = {std::move(memoryBefore), simulatedPc.memoryAtRelease(),
                               turns() == turnsBefore};
    const std::vector<Access> record = simulatedPc.takeRecord();
    rememberAll(record);
    Replay bus(record, passStart);
    try {
        referenceHost.pass(bus, memory);
    } catch (const Deviation& deviation) {
        throw Deviation("pass " + std::to_string(passes) + ": " + deviation.what());
    }
    ++passes;
}

// Of the DSPs: at which they hand over a buffer or find it not released.
std::uint64_t ObservedRun::turns() const {
    std::uint64_t sum = 0;
    for (const cardsim::CardReport& card : simulatedPc.report().cards) {
        sum += card.handOvers + card.missed;
    }
    return sum;
}

void ObservedRun::send(int type, std::vector<unsigned char> bytes) {
    referenceHost.send(type, bytes);
    dispatcher().addPacketToReceiveQueue(static_cast<unsigned char>(type),
                                         static_cast<int>(bytes.size()), bytes.data());
}

void ObservedRun::setMonitorChannel(int channel) {
    referenceHost.setMonitorChannel(channel);
    boardManager.setMonitorChannel(channel);
}

void ObservedRun::setEnablePlayback(bool enabled) {
    referenceHost.setEnablePlayback(enabled);
    boardManager.setEnablePlayback(enabled);
    if (!enabled) {
        referenceHost.dropPlayback();
        dispatcher().removePacketsFromReceiveQueue(PACKET_PLAYBACK_DATA);
    }
}

void ObservedRun::setRecording(bool on) {
    if (on) {
        referenceHost.startRecording();
        boardManager.startRecording();
    } else {
        referenceHost.stopRecording();
        boardManager.stopRecording();
    }
}

std::uint64_t ObservedRun::takePackets(std::uint64_t atMost) {
    std::uint64_t taken = 0;
    for (; taken < atMost; ++taken, ++packets) {
        const std::unique_ptr<Packet> packet(dispatcher().getPacketFromSendQueue());
        if (packet == nullptr) {
            break;
        }
        const std::vector<unsigned char> payload(packet->getData(),
                                                 packet->getData() + packet->getLength());
        const std::string name =
            "packet " + std::to_string(packets) + ": " + nameOf(packet->getType(), payload);
        if (referenceHost.reports.empty()) {
            throw Deviation(name + " where none was due");
        }
        const Report due = std::move(referenceHost.reports.front());
        referenceHost.reports.pop_front();
        if (packet->getType() != due.type || payload != due.payload) {
            throw Deviation(name + " where it was due as " + nameOf(due.type, due.payload));
        }
        remember(static_cast<std::uint64_t>(due.type));
        for (const unsigned char byte : payload) {
            remember(byte);
        }
    }
    return taken;
}

void ObservedRun::takeAllPackets() {
    takePackets(std::numeric_limits<std::uint64_t>::max());
    if (!referenceHost.reports.empty()) {
        const Report& lost = referenceHost.reports.front();
        throw Deviation("packet " + std::to_string(packets) + ": lost, " +
                        nameOf(lost.type, lost.payload));
    }
}

void ObservedRun::rememberAll(const std::vector<Access>& record) {
    for (const Access& access : record) {
        remember(access.port);
        remember(access.value);
        remember(access.time_us);
    }
}

void ObservedRun::remember(std::uint64_t what) {
    constexpr std::uint64_t kFnvPrime = 0x100000001B3;
    hash = (hash ^ what) * kFnvPrime;
}

}  // namespace trials
