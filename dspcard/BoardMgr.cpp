#include "BoardMgr.h"

#include <pasync.h>

#include <iostream>
#include <string>

#include "CardMemory.h"
#include "ConsoleLine.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "DSPDetect.h"
#include "ErrorReport.h"
#include "MadeOnce.h"
#include "MonitorBuffer.h"
#include "javaint/MessageDispatcher.h"

namespace {

constexpr int kWarmUpBuffers = 6;
constexpr unsigned kPollInterval_ms = 100;
constexpr int kToleratedLockUps = 6;
constexpr unsigned kPauseBeforeReboot_ms = 3000;
constexpr unsigned kPauseAfterReboot_ms = 1000;

}  // namespace

BoardMgr* BoardMgr::pInstance = nullptr;

BoardMgr& BoardMgr::getInstance() {
    return madeOnce(pInstance, [] { return new BoardMgr; });
}

BoardMgr::BoardMgr() {
    setUpCards();
}

BoardMgr::~BoardMgr() {
    ConsoleLine(std::cerr) << "BoardMgr - destructor unmapping dsp card memory";
    DirectIO::getInstance().unmapMemory();
    boards[0].reset();
    boards[1].reset();
}

void BoardMgr::setUpCards() {
    DirectIO& hardware = DirectIO::getInstance();
    hardware.allowPortAccess();
    dspCardsMem = static_cast<char*>(hardware.mapMemory(kCardMemBase, kCardMemLength));

    int channelsBoard0 = DSPDetect::kAbsent;
    int channelsBoard1 = DSPDetect::kAbsent;
    const bool mayTouchPorts = hardware.getFailure() != DirectIO::Failure::kMemoryInUse;
    if (mayTouchPorts) {
        DSPDetect detector;
        numBoards = detector.detectBoards(channelsBoard0, channelsBoard1, dspCardsMem);
    }
    ConsoleLine(std::cerr) << "Detected " << numBoards << " boards";
    ConsoleLine(std::cerr) << "Board0 has " << channelsBoard0 << " channels";
    ConsoleLine(std::cerr) << "Board1 has " << channelsBoard1 << " channels";

    if (dspCardsMem == nullptr) {
        // A board without its memory could only crash; the client hears why there is none.
        numBoards = 0;
        const std::string reason =
            mayTouchPorts ? "Card memory not mapped" : "Cards in use by " + hardware.getHolder();
        reportError(ERROR_MEMORY_NOT_MAPPED, reason.c_str());
    }
    makeBoards(channelsBoard0, channelsBoard1);
}

void BoardMgr::makeBoards(int channelsBoard0, int channelsBoard1) {
    if (numBoards > 0) {
        boards[0] = makeBoard(0, channelsBoard0, 0);
    }
    if (numBoards > 1) {
        // The lines of card 0 may not have been counted: it answered in its second test only (-2),
        // or its status could not be read (0). Those of card 1 follow the lines of its board.
        boards[1] = makeBoard(1, channelsBoard1, boards[0]->getNumChannels());
    }
}

std::unique_ptr<DSPBoard> BoardMgr::makeBoard(int boardNumber, int channels,
                                              int firstChannel) const {
    char* const boardMem = dspCardsMem + static_cast<unsigned long>(boardNumber) * kBoardMemLength;
    if (channels == 4) {
        return std::make_unique<DSPBoardFourChannel>(boardNumber, boardMem, firstChannel);
    }
    return std::make_unique<DSPBoardEightChannel>(boardNumber, boardMem, firstChannel);
}

bool BoardMgr::bootload() {
    bool success = true;
    for (int i = 0; i < numBoards; ++i) {
        ConsoleLine(std::cerr) << "BoardMgr calling bootload on board " << i;
        success = success && boards[i]->bootload();
    }
    return success;
}

DSPBoard* BoardMgr::getBoard(int boardNumber) const {
    return boardNumber >= 0 && boardNumber < numBoards ? boards[boardNumber].get() : nullptr;
}

void BoardMgr::setEnablePlayback(bool playback) {
    if (boards[0] != nullptr) {
        boards[0]->setEnablePlayback(playback);
    }
    if (!playback) {
        MonitorBuffer::getInstance().clear();
    }
}

void BoardMgr::setMonitorChannel(int channel) {
    for (int i = 0; i < numBoards; ++i) {
        boards[i]->setMonitoringChannel(channel);
    }
    if (boards[0] != nullptr) {
        boards[0]->setOutputMonitoring(channel != kMonitorNothing);
    }
    if (channel == kMonitorNothing) {
        MonitorBuffer::getInstance().clear();
    }
}

void BoardMgr::enableDebug(bool debug) {
    for (int i = 0; i < numBoards; ++i) {
        boards[i]->enableDebug(debug);
    }
}

void BoardMgr::startRecording() {
    for (int i = 0; i < numBoards; ++i) {
        boards[i]->clearTriggers();
    }
    switchRecording(true);
}

void BoardMgr::stopRecording() {
    switchRecording(false);
}

void BoardMgr::switchRecording(bool on) {
    recording.store(on, std::memory_order_relaxed);
    DSPBoard::setRecording(on);
}

bool BoardMgr::getLockedBuffer(int& board, int& buffer) const {
    for (int i = 0; i < numBoards; ++i) {
        const int lockedBuffer = boards[i]->getLockedBuffer();
        if (lockedBuffer >= 0) {
            board = i;
            buffer = lockedBuffer;
            return true;
        }
    }
    return false;
}

void BoardMgr::unlockBuffer(int buffer) const {
    DSPBoard::unlockBuffer(buffer);
}

void BoardMgr::readWriteDSPs() {
    ConsoleLine(std::cerr) << "BoardMgr::readWriteDSPs";
    releaseFirstBuffers();
    int board = -1;
    int buffer = -1;
    int lockedCount = 0;
    while (true) {
        if (getLockedBuffer(board, buffer) && exchangeBuffer(board, buffer)) {
            ++lockedCount;
        }
        if (lockedCount > kToleratedLockUps) {
            rebootCards();
            lockedCount = 0;
        }
        pt::psleep(kPollInterval_ms);
    }
}

void BoardMgr::releaseFirstBuffers() {
    int board = -1;
    int buffer = -1;
    int i = 0;
    while (i < kWarmUpBuffers) {
        if (getLockedBuffer(board, buffer)) {
            ++i;
            unlockBuffer(buffer);
        }
        pt::psleep(kPollInterval_ms);
    }
}

bool BoardMgr::exchangeBuffer(int board, int buffer) {
    MonitorBuffer& monitorBuffer = MonitorBuffer::getInstance();
    const unsigned clearsBefore = monitorBuffer.getClears();
    std::unique_ptr<Packet> command = getNextCommand(board);
    DSPBoard* const dspBoard = getBoard(board);
    dspBoard->doReadWrite(buffer, command.get());
    // Audio of a client or line that was switched off meanwhile would never be played, and hold
    // back all commands.
    monitorBuffer.clearAgainSince(clearsBefore);
    const bool lockedUp = dspBoard->isLockedUp();
    dspBoard->setLockedUp(false);
    command.reset();
    unlockBuffer(buffer);
    return lockedUp;
}

void BoardMgr::rebootCards() {
    ConsoleLine(std::cerr) << "DSP Card locked so bootloading!";
    pt::psleep(kPauseBeforeReboot_ms);
    bootload();
    pt::psleep(kPauseAfterReboot_ms);
}

std::unique_ptr<Packet> BoardMgr::getNextCommand(int board) {
    if (pendingCommand[board] != nullptr || board != 0) {
        return std::move(pendingCommand[board]);
    }
    if (!MonitorBuffer::getInstance().isEmpty()) {
        return nullptr;  // no command is taken faster than the card plays
    }
    std::unique_ptr<Packet> command(MessageDispatcher::getInstance().getPacketFromReceiveQueue());
    if (command != nullptr && command->getType() == PACKET_LINE_SETTINGS) {
        copySettingsForOtherBoards(static_cast<const LineSettingsPacket&>(*command));
    }
    return command;
}

void BoardMgr::copySettingsForOtherBoards(const LineSettingsPacket& settings) {
    for (int i = 1; i < numBoards; ++i) {
        pendingCommand[i] = std::make_unique<LineSettingsPacket>(&settings);
    }
}

void BoardMgr::execute() {
    ConsoleLine(std::cerr) << "Entering BoardMgr::execute() ";
    DirectIO().allowPortAccess();
}

void BoardMgr::cleanup() {}
