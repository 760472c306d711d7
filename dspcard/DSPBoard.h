// One DSP card, whatever its number of lines: who it is, which global channels its ports carry, the
// switches that the board manager sets, the trigger state of its lines, its boot loader, and the
// hand-over of transfer buffers. The card classes derived from it do the exchange itself.
//
// The thread that drives the cards runs everything but the switches: the client's threads set
// those through the board manager (setMonitoringChannel, setOutputMonitoring, setEnablePlayback,
// enableDebug, clearTriggers), without a lock, and they take effect at the next exchange. Boards
// belong to the board manager and live as long as it.
//
// A transfer buffer is named by its global number: 2 x board number + buffer within the card.
#pragma once

#include <atomic>
#include <cstdint>

#include "DSPBootLoader.h"
#include "LineSettingsCmd.h"
#include "javaint/Packet.h"

class DSPBoard {
  public:
    // bNumber: 0 or 1. nChannels: 4 or 8. bAddress: the card's 8 KiB of mapped memory. fChannel:
    // the global channel of port 0.
    DSPBoard(int bNumber, unsigned short nChannels, char* bAddress, int fChannel);
    DSPBoard(const DSPBoard&) = delete;
    DSPBoard& operator=(const DSPBoard&) = delete;

    virtual ~DSPBoard();
    // Exchanges one buffer that the DSP has handed over. The command may be null; it stays with the
    // caller. The caller releases the buffer afterwards.
    virtual void doReadWrite(int lockedBufferNumber, Packet* command);
    // Whether the line of a port (0 to channels - 1) is off hook now.
    virtual bool readOffHook(int channel);
    // Whether the DSP flagged voice activity on a port in the buffer exchanged last.
    virtual bool readVOXTrigger(int channel);
    // The level word that makes the DSP trigger as wanted; 0 for a value that is no TriggerType.
    virtual std::uint16_t getTriggerLevel(TriggerType tType);
    // Loads the firmware and starts the DSP; false when the firmware could not be read or the card
    // did not take it.
    virtual bool bootload();

    int getNumChannels() const { return numChannels; }
    char* getBaseAddr() const { return baseAddr; }
    // Set by an exchange that finds the DSP locked up, cleared by whoever has counted it.
    bool isLockedUp() const { return lockedUp; }
    void setLockedUp(bool isLocked) { lockedUp = isLocked; }
    // A global channel, or -1 for none.
    void setMonitoringChannel(int channel);
    void setOutputMonitoring(bool monitoring);
    void setEnablePlayback(bool playback);
    void enableDebug(bool debug);
    // One switch for all cards: while it is on, exchanges report triggers, digits and callers.
    static void setRecording(bool on);

    bool channelOnThisBoard(int channel) const;
    // For diagnosis, like printDebugBuffer of a four-channel card: the cycle needs neither.
    bool bufferOnThisBoard(int bufferNumber) const;
    // The global number of a buffer that the DSP has handed over, the lower one first, or -1.
    int getLockedBuffer() const;
    // Hands a buffer (0 to 3) back to its DSP.
    static void unlockBuffer(int buffer);
    // The other buffer of the same card. A number outside 0 to 3 is fatal.
    static int getOtherBufferNumber(int buffer);

    // Queues a packet for every line whose trigger state has changed since the last report.
    void handleTriggers();
    // Forgets the reported states: a line that is triggered is reported again.
    void clearTriggers();
    // Reports trouble on the console and to the client.
    static void error(int code, const char* description);

  protected:
    static constexpr int kMaxPorts = 8;
    static constexpr int kNoChannel = -1;
    static constexpr std::uint16_t silence[10] = {0xBB55, 0x76DB, 0x40A0, 0x00FA, 0xC200,
                                                  0x07D6, 0x0280, 0x03EB, 0x0800, 0x1F58};

    static bool isRecording() { return recording.load(std::memory_order_relaxed); }
    // Line-status word k of the card, 0 to 3.
    std::uint16_t readLineStatus(int k) const;

    DSPBootloader bootloader;
    std::uint16_t numChannels;
    int boardNumber;
    int firstChannel;
    char* baseAddr;
    std::uint16_t basePort;
    std::atomic<int> monitoringChannel{kNoChannel};
    std::uint32_t transferCounter = 0;  // of the last buffer exchanged; 0 until the first
    std::atomic<bool> playbackEnabled{false};
    Packet* pendingCommand = nullptr;  // nothing uses it: commands wait in the board manager
    std::atomic<bool> debugEnabled{false};
    bool lockedUp = false;
    std::atomic<bool> outputMonitoring{false};    // kept for card 0; no exchange reads it
    std::atomic<bool> triggered[kMaxPorts] = {};  // as last reported to the client
    bool offHookTrigger[kMaxPorts] = {};          // the trigger follows the hook, not the voice
    bool initialLineSettingsReceived = false;     // no trigger is reported before

  private:
    static std::atomic<bool> recording;
};
