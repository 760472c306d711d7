#include "DSPTransferBoard.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <memory>

#include "CardMemory.h"
#include "ConsoleLine.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "MemIO.h"
#include "MonitorBuffer.h"
#include "javaint/MessageDispatcher.h"

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::doReadWrite(int lockedBufferNumber, Packet* command) {
    transferBufferFromCard(&lockedBuffer, lockedBufferNumber);
    if (debugEnabled.load(std::memory_order_relaxed)) {
        printDebug();
    }
    sendPackets();
    const int monitored = monitoringChannel.load(std::memory_order_relaxed);
    feedMonitorBuffer(monitored);
    handleAnyCommands(command);
    fillPlayback(monitored);
    transferBufferToCard(&otherBuffer, getOtherBufferNumber(lockedBufferNumber));
    if (getLockedBuffer() != lockedBufferNumber) {
        error(ERROR_TOO_SLOW, Card::kTooSlowMessage);
    }
    checkCounter();
}

template <class Card, class Transfer>
char* DSPTransferBoard<Card, Transfer>::cardBuffer(int bufferNumber) const {
    return baseAddr + (bufferNumber % 2 == 0 ? 0 : kSecondBufferOffset);
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::transferBufferFromCard(Transfer* buffer, int bufferNumber) {
    MemReadBlockW(cardBuffer(bufferNumber), 0, reinterpret_cast<std::uint16_t*>(buffer),
                  sizeof(Transfer) / 2);
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::transferBufferToCard(Transfer* buffer, int bufferNumber) {
    if (buffer->command.instruction == kApplyLineSettings) {
        MemWriteBlockW(cardBuffer(bufferNumber), offsetof(Transfer, command),
                       reinterpret_cast<const std::uint16_t*>(&buffer->command),
                       sizeof(buffer->command) / 2);
    } else if (card().writesPlayback()) {
        MemWriteBlockW(cardBuffer(bufferNumber),
                       offsetof(Transfer, playbackPortData) + offsetof(PortData, voiceBuffer),
                       buffer->playbackPortData.voiceBuffer, kAudioBytes / 2);
    }
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::fillWithSilence(Transfer* buffer) {
    static_assert(kAudioBytes % sizeof(silence) == 0);
    auto& audio = buffer->playbackPortData.voiceBuffer;
    for (std::uint16_t* next = audio; next != std::end(audio);) {
        next = std::copy(std::begin(silence), std::end(silence), next);
    }
}

template <class Card, class Transfer>
bool DSPTransferBoard<Card, Transfer>::readVOXTrigger(int channel) {
    constexpr std::uint16_t kVOXTrigger = 0x8000;
    return (lockedBuffer.recordingPortData[channel].voiceLevel & kVOXTrigger) != 0;
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::sendPackets() {
    if (isRecording()) {
        handleTriggers();
        for (int port = 0; port < kPorts; ++port) {
            sendText(port);
        }
    }
    sendAudio();
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::sendText(int port) {
    const PortData& data = lockedBuffer.recordingPortData[port];
    // A count beyond its buffer is nonsense: never read into the neighbouring field.
    constexpr int kMaxDigits = sizeof(data.DTMFBuffer) - 1;
    constexpr int kMaxCaller = sizeof(data.CLIBuffer) - 1;

    const int digits = static_cast<std::int8_t>(data.DTMFBuffer[0]);
    if (digits > 0) {
        card().announceDigits(port, digits);
        MessageDispatcher::getInstance().addPacketToSendQueue(
            new DTMFPacket(&data.DTMFBuffer[1], std::min(digits, kMaxDigits), firstChannel + port));
    }
    const int caller = static_cast<std::int8_t>(data.CLIBuffer[0]);
    if (caller > 0) {
        ConsoleLine(std::cout) << "Sending CLI Packet to Java: channel=" << port
                               << " length=" << caller;
        MessageDispatcher::getInstance().addPacketToSendQueue(
            new CLIPacket(&data.CLIBuffer[1], std::min(caller, kMaxCaller), firstChannel + port));
    }
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::sendAudio() {
    auto packet = std::make_unique<RecordedDataPacket>(kPorts == 4, firstChannel);
    for (int port = 0; port < kPorts; ++port) {
        packet->addAudioData(port, reinterpret_cast<unsigned char*>(
                                       lockedBuffer.recordingPortData[port].voiceBuffer));
    }
    MessageDispatcher::getInstance().addPacketToSendQueue(packet.release());
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::feedMonitorBuffer(int monitored) {
    if (!channelOnThisBoard(monitored)) {
        return;
    }
    card().announceMonitorCopy();
    const PortData& data = lockedBuffer.recordingPortData[monitored - firstChannel];
    MonitorBuffer::getInstance().addData(reinterpret_cast<const char*>(data.voiceBuffer),
                                         kAudioBytes);
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::handleAnyCommands(Packet* packet) {
    otherBuffer.command.instruction = kNoCommand;
    if (packet == nullptr) {
        return;
    }
    if (packet->getType() == PACKET_PLAYBACK_DATA) {
        MonitorBuffer::getInstance().addData(reinterpret_cast<const char*>(packet->getData()),
                                             packet->getLength());
    } else if (packet->getType() == PACKET_LINE_SETTINGS) {
        applyLineSettings(static_cast<const LineSettingsPacket&>(*packet));
    }
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::applyLineSettings(const LineSettingsPacket& settings) {
    ConsoleLine(std::cerr) << "Updateing Line Settings!!!";
    initialLineSettingsReceived = true;
    ConsoleLine(std::cerr) << settings.toString();
    otherBuffer.command.instruction = kApplyLineSettings;
    for (int port = 0; port < kPorts; ++port) {
        const int channel = firstChannel + port;
        const auto trigger = static_cast<TriggerType>(settings.getTrigType(channel));
        DSPCommandSettings& entry = otherBuffer.command.settings[port];
        entry.beepType = settings.getBeepType(channel);
        entry.trigType = getTriggerLevel(trigger);
        entry.trigDelay_ms = triggerDelay(settings.getTrigDelaySecs(channel));
        offHookTrigger[port] = trigger == TS_OFF_HOOK;
    }
    alternateLineSettings = !alternateLineSettings;
}

template <class Card, class Transfer>
std::uint16_t DSPTransferBoard<Card, Transfer>::triggerDelay(int seconds) const {
    constexpr int kLongest_s = 65;  // the field has 16 bits of milliseconds
    const int exact_ms = std::min(seconds, kLongest_s) * 1000;
    return static_cast<std::uint16_t>(exact_ms + (alternateLineSettings ? 1 : 0));
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::fillPlayback(int monitored) {
    if (boardNumber != 0) {
        return;  // the audio output is that of card 0
    }
    const bool monitoring = monitored != kNoChannel;
    card().checkMonitorSource(monitoring);
    auto* const audio = reinterpret_cast<char*>(otherBuffer.playbackPortData.voiceBuffer);
    const bool mayPlay = monitoring || playbackEnabled.load(std::memory_order_relaxed);
    if (!mayPlay || !MonitorBuffer::getInstance().getDataIfAny(audio, kAudioBytes)) {
        fillWithSilence(&otherBuffer);
    }
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::checkCounter() {
    const std::uint32_t counter = lockedBuffer.bufferCounter;
    if (transferCounter != 0) {
        if (counter == transferCounter) {
            error(ERROR_LOCKED_UP, "DSP Board Locked Up");
            lockedUp = true;
        } else if (counter != transferCounter + 1) {
            error(ERROR_MISSED_TRANSFER, "Missed Xfer ");
        }
    }
    transferCounter = counter;
}

template <class Card, class Transfer>
bool DSPTransferBoard<Card, Transfer>::bootload() {
    lockedUp = false;
    ConsoleLine(std::cerr) << Card::kClassName << "::bootload()";
    if (!bootloader.bootload(Card::kLoadFileName)) {
        return false;
    }
    ConsoleLine(std::cerr) << "Size of Transfer=" << sizeof(Transfer);
    ConsoleLine(std::cerr) << "Size of counter=" << sizeof(Transfer::bufferCounter);
    ConsoleLine(std::cerr) << "Size of Command=" << sizeof(Transfer::command);
    ConsoleLine(std::cerr) << "Size of PortData=" << (kPorts + 1) * sizeof(PortData);
    for (Transfer* buffer : {&lockedBuffer, &otherBuffer}) {
        buffer->command.instruction = kNoCommand;
        fillWithSilence(buffer);
    }
    transferBufferToCard(&lockedBuffer, 0);
    transferBufferToCard(&otherBuffer, 1);
    bootloader.startDSP();
    return true;
}

template <class Card, class Transfer>
void DSPTransferBoard<Card, Transfer>::printDebug() {
    constexpr std::uint32_t kDetailPeriod = 10;
    ConsoleLine(std::cout) << "Transfer Count = " << lockedBuffer.bufferCounter;
    if (lockedBuffer.bufferCounter % kDetailPeriod != 1) {
        return;
    }
    for (int port = 0; port < kPorts; ++port) {
        ConsoleLine line(std::cout);
        line << port << " ";
        if (offHookTrigger[port]) {
            line << "OH " << (readOffHook(port) ? "Triggered" : "");
        } else {
            card().printVOX(line, port);
        }
    }
}

template class DSPTransferBoard<DSPBoardFourChannel, DSPTransferFourChannel>;
template class DSPTransferBoard<DSPBoardEightChannel, DSPTransferEightChannel>;
