// What a host has to do with the cards, said a second time, plainly and apart from the driver: how
// it finds and boots them, and what each pass over them reads, writes and reports. A trial runs it
// over the record of what the driver did; where the two part, one of them is wrong.
//
// It knows the cards from the simulation's description of ports and layouts, not from the driver's.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "Replay.h"
#include "model/TransferLayout.h"

namespace trials {

// A load file's content: what a boot has to bring into the DSP.
struct Section {
    std::uint16_t address;
    std::vector<std::uint16_t> words;
};
using Firmware = std::vector<Section>;

// The load file of that kind of card, and its sections, as a host finds them in the working
// directory.
Firmware readFirmware(int channels);

// What was found, by slot: 4, 8, or -2 for no card.
struct Detected {
    int boards;
    std::array<int, 2> channels;
};
Detected referenceDetection(Replay& bus);

// Whether the card could be booted and started.
bool referenceBoot(Replay& bus, int slot, int channels, const Firmware& firmware);

// An event packet as the client has to get it.
struct Report {
    int type;
    std::vector<unsigned char> payload;
};

// Card memory in one pass of the cycle.
struct PassMemory {
    MemoryImage before;
    MemoryImage atRelease;  // empty when no buffer was released
    bool undisturbed;       // no DSP worked during the pass: what changed, the driver changed
};

class ReferenceHost {
  public:
    explicit ReferenceHost(const Detected& detected);

    // Boots the cards up to the first that fails; whether none did. memory becomes what it has to
    // be afterwards.
    bool boot(Replay& bus, MemoryImage& memory);
    // One pass of the cycle, its sleep included. Throws Deviation when the driver did something
    // else, on the bus or in card memory.
    void pass(Replay& bus, const PassMemory& memory);

    // What the client does, between two passes.
    void send(int type, const std::vector<unsigned char>& bytes);
    void setMonitorChannel(int channel);
    void setEnablePlayback(bool enabled);
    // The playback audio that waits is forgotten.
    void dropPlayback();
    void startRecording();
    void stopRecording() { recording = false; }

    // What the client has to get, the oldest first; the trial takes from it.
    std::deque<Report> reports;

    struct Settings {
        std::uint16_t beep, trigger, delay_ms;
    };
    // Whether the card has had its turn with both buffers since the last command.
    bool settingsAreOld(int slot) const;
    // What a card's line has to be set to, after the first command.
    Settings settings(int slot, int port) const;
    int numBoards() const { return static_cast<int>(boards.size()); }
    int channels(int slot) const { return boards[static_cast<std::size_t>(slot)].channels; }
    std::uint64_t releases() const { return released; }

  private:
    struct Board {
        int channels = 0;
        int firstChannel = 0;
        Firmware firmware;
        std::uint32_t counter = 0;
        bool hasSettings = false;
        std::array<Settings, 8> settings{};
        std::array<bool, 8> followsHook{};
        std::array<bool, 8> triggered{};
        std::vector<unsigned char> playback;
        std::vector<unsigned char> pending;  // settings to come, from board 0's command
        int exchangesSinceSettings = 0;
    };
    struct Command {
        int type;
        std::vector<unsigned char> bytes;
    };

    int findHandedOver(Replay& bus, int slot) const;
    int findHandedOver(Replay& bus) const;
    void release(Replay& bus, int buffer);
    void exchange(Replay& bus, int buffer, const PassMemory& memory);
    Command takeCommand(int slot);
    void reportLines(Replay& bus, int slot, const std::uint16_t* words);
    void reportText(int type, int channel, const unsigned char* field, int capacity);
    void reportAudio(const Board& board, const unsigned char* bytes);
    void reportError(int code, const std::string& text);
    bool isOffHook(Replay& bus, int slot, int port) const;
    void monitor(const Board& board, const unsigned char* bytes);
    void applySettings(Board& board, const std::vector<unsigned char>& table);
    void fillPlayback(Board& board);
    // What an exchange writes into the other buffer.
    static void write(const Board& board, int slot, bool hasSettings, std::uint16_t* words);
    void judgeCounter(Board& board, std::uint32_t counter);

    std::vector<Board> boards;
    std::deque<Command> commands;
    std::deque<unsigned char> ring;
    int monitored = -1;
    bool playing = false;
    bool recording = false;
    bool oddSettings[2] = {};  // of four- and of eight-channel cards
    int warmUp = 0;
    int lockUps = 0;
    std::uint64_t released = 0;
};

}  // namespace trials
