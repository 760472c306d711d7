// The exchange of transfer buffers, once for both kinds of card: the steps are the same, on two
// layouts. A card class derives from DSPTransferBoard<itself, its transfer layout> and states what
// is its own:
//
//   kClassName, kLoadFileName, kTooSlowMessage
//   bool writesPlayback() const           whether this card is sent playback audio at all
//   void announceMonitorCopy() const      the log lines that only one kind of card writes
//   void announceDigits(int port, int n) const
//   void checkMonitorSource(bool monitoring) const
//   void printVOX(ConsoleLine&, int port) the voice-activity half of a debug line
//
// Runs on the thread that drives the cards. The bodies are compiled once, in DSPTransferBoard.cpp.
#pragma once

#include <type_traits>

#include "DSPBoard.h"
#include "DSPMessageBuffer.h"

class ConsoleLine;

template <class Card, class Transfer>
class DSPTransferBoard : public DSPBoard {
  public:
    DSPTransferBoard(int boardNum, char* baseMemAddr, int firstChan)
        : DSPBoard(boardNum, kPorts, baseMemAddr, firstChan) {}

    void doReadWrite(int lockedBufferNumber, Packet* command) override;
    bool readVOXTrigger(int channel) override;
    bool bootload() override;

    // Copies the whole of a card buffer into the host copy.
    void transferBufferFromCard(Transfer* buffer, int bufferNumber);
    // Writes the command block of the host copy, if it has a command, or else its playback audio
    // to a card that is sent any.
    void transferBufferToCard(Transfer* buffer, int bufferNumber);
    // Fills the playback audio of the host copy, and nothing else, with the silence pattern.
    void fillWithSilence(Transfer* buffer);
    // Queues what the DSP has reported: triggers, digits and callers while recording, then the
    // audio in any case.
    void sendPackets();
    void handleAnyCommands(Packet* packet);
    void printDebug();

  protected:
    using PortData = std::remove_extent_t<decltype(Transfer::recordingPortData)>;

    static constexpr int kPorts = std::extent_v<decltype(Transfer::recordingPortData)>;
    static constexpr int kAudioBytes = sizeof(PortData::voiceBuffer);

    Transfer lockedBuffer{};  // what the DSP has handed over
    Transfer otherBuffer{};   // what goes into the card's other buffer

  private:
    // One more millisecond of delay at every other application of settings by this kind of card.
    inline static bool alternateLineSettings = false;

    const Card& card() const { return static_cast<const Card&>(*this); }
    Card& card() { return static_cast<Card&>(*this); }

    char* cardBuffer(int bufferNumber) const;
    void sendText(int port);
    void sendAudio();
    void feedMonitorBuffer(int monitored);
    void applyLineSettings(const LineSettingsPacket& settings);
    std::uint16_t triggerDelay(int seconds) const;
    void fillPlayback(int monitored);
    void checkCounter();
};
