#include "DSPBoard.h"

#include <sys/io.h>

#include <iostream>

#include "CardPorts.h"
#include "ConsoleLine.h"
#include "ErrorReport.h"
#include "TriggerLevels.h"
#include "javaint/MessageDispatcher.h"

namespace {

constexpr std::uint16_t kOnHook = 0x0004;

std::uint16_t statusPortOf(int buffer) {
    const std::uint16_t statusPort = buffer % 2 == 0 ? kStatusPort : kStatusPort1;
    return static_cast<std::uint16_t>(basePortOfBoard(buffer / 2) + statusPort);
}

bool isHandedOver(int buffer) {
    return (inw(statusPortOf(buffer)) & kBufferHandedOver) != 0;
}

}  // namespace

std::atomic<bool> DSPBoard::recording{false};

DSPBoard::DSPBoard(int bNumber, unsigned short nChannels, char* bAddress, int fChannel)
    : numChannels(nChannels),
      boardNumber(bNumber),
      firstChannel(fChannel),
      baseAddr(bAddress),
      basePort(basePortOfBoard(bNumber)) {
    bootloader.init(basePort, numChannels, boardNumber);
}

DSPBoard::~DSPBoard() = default;

void DSPBoard::doReadWrite(int, Packet*) {
    ConsoleLine(std::cout) << "doReadWrite should be overwritten ";
}

bool DSPBoard::readOffHook(int channel) {
    return (readLineStatus(channel) & kOnHook) == 0;
}

bool DSPBoard::readVOXTrigger(int) {
    return false;
}

std::uint16_t DSPBoard::getTriggerLevel(TriggerType tType) {
    return triggerLevel(tType, &TriggerLevels::fourChannel);
}

bool DSPBoard::bootload() {
    return false;
}

void DSPBoard::setMonitoringChannel(int channel) {
    monitoringChannel.store(channel, std::memory_order_relaxed);
}

void DSPBoard::setOutputMonitoring(bool monitoring) {
    outputMonitoring.store(monitoring, std::memory_order_relaxed);
}

void DSPBoard::setEnablePlayback(bool playback) {
    playbackEnabled.store(playback, std::memory_order_relaxed);
}

void DSPBoard::setRecording(bool on) {
    recording.store(on, std::memory_order_relaxed);
}

void DSPBoard::enableDebug(bool debug) {
    debugEnabled.store(debug, std::memory_order_relaxed);
}

bool DSPBoard::channelOnThisBoard(int channel) const {
    return firstChannel <= channel && channel < firstChannel + numChannels;
}

bool DSPBoard::bufferOnThisBoard(int bufferNumber) const {
    return bufferNumber >= 0 && bufferNumber / 2 == boardNumber;
}

int DSPBoard::getLockedBuffer() const {
    const int firstBuffer = 2 * boardNumber;
    if (isHandedOver(firstBuffer)) {
        return firstBuffer;
    }
    return isHandedOver(firstBuffer + 1) ? firstBuffer + 1 : -1;
}

void DSPBoard::unlockBuffer(int buffer) {
    if (!isHandedOver(buffer)) {
        ConsoleLine(std::cout) << "PROBLEM! Unlocking a buffer which is not locked";
    }
    outw(kReleaseBuffer, statusPortOf(buffer));
}

int DSPBoard::getOtherBufferNumber(int buffer) {
    if (buffer < 0 || buffer > 3) {
        pt::fatal(-1, "Buffer should be 0,1,2,3");
    }
    return buffer ^ 1;
}

void DSPBoard::handleTriggers() {
    if (!initialLineSettingsReceived) {
        return;
    }
    for (int port = 0; port < numChannels; ++port) {
        const bool state = offHookTrigger[port] ? readOffHook(port) : readVOXTrigger(port);
        // One step, so that a clearTriggers of the client's thread meanwhile is not undone.
        if (triggered[port].exchange(state, std::memory_order_relaxed) != state) {
            MessageDispatcher::getInstance().addPacketToSendQueue(
                new TriggerPacket(state, firstChannel + port));
        }
    }
}

void DSPBoard::clearTriggers() {
    for (std::atomic<bool>& state : triggered) {
        state.store(false, std::memory_order_relaxed);
    }
}

void DSPBoard::error(int code, const char* description) {
    reportError(code, description);
}

std::uint16_t DSPBoard::readLineStatus(int k) const {
    return inw(static_cast<std::uint16_t>(basePort + kLinePort + 2 * k));
}
