// One simulated card: registers, boot ROM, the running DSP with its two transfer buffers, lines.
//
// The DSP works by catching up: each access says what time it is, and the card first does whatever
// it would have done until then. Time is in microseconds and never goes back. Card memory belongs
// to whoever made the card and is shared with the host; the card moves it in single 16-bit words.
// Not thread-safe: one access at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "model/Audio.h"
#include "model/BootRom.h"
#include "model/Faults.h"
#include "model/Line.h"
#include "model/PortMap.h"
#include "model/Random.h"
#include "model/Report.h"
#include "model/TransferLayout.h"

namespace cardsim {

struct CardOptions {
    int channels = 4;             // which kind of card
    std::uint32_t period_us = 0;  // between buffers; 0: that of the kind of card
    AudioSource audio = AudioSource::kPattern;
    std::vector<Fault> faults;
    std::uint64_t seed = 0;
    // The DSP takes a turn only when told to, see Card::turn.
    bool turnsByHand = false;
};

class Card {
  public:
    // Gets the audio that the card plays, in bytes, buffer by buffer.
    using Speaker = std::function<void(const char* bytes, std::size_t count)>;

    // slot: 0 or 1. memory: layout::kCardWords words. The report is filled as things happen.
    Card(int slot, const CardOptions& options, volatile std::uint16_t* memory,
         MachineReport& report);
    Card(const Card&) = delete;
    Card& operator=(const Card&) = delete;

    // A register by its offset from the card's base port.
    std::uint16_t in(std::uint16_t offset, std::uint64_t now);
    void out(std::uint16_t offset, std::uint16_t value, std::uint64_t now);
    // Does what the DSP does until then.
    void advance(std::uint64_t until);
    // The DSP's turn comes at that time, if it runs; for cards whose turns are given by hand.
    void turn(std::uint64_t time);

    bool handsOver(int buffer) const { return buffers[buffer].handedOver; }
    int channels() const { return kind.channels; }
    Line& line(int port) { return lines[static_cast<std::size_t>(port)]; }
    Faults& faults() { return plannedFaults; }
    void connectSpeaker(Speaker listener) { speaker = std::move(listener); }
    const BootRom& bootRom() const { return rom; }
    // The word that the host wrote to a register last.
    std::uint16_t written(std::uint16_t offset) const { return registers[offset / 2]; }

  private:
    enum class State { kStopped, kBooting, kRunning };

    struct Buffer {
        volatile std::uint16_t* words = nullptr;
        bool handedOver = false;
        bool isTakenBack = false;  // as soon as the host has seen it
    };

    void control(std::uint16_t value);
    void askForByte();
    void strobe();
    void endStrobe();
    void stop();
    void startRom();
    void startFirmware();
    void recordImage();

    std::uint16_t readStatus();
    std::uint16_t readHandOver(Buffer& buffer);
    std::uint16_t readLineStatus(int word);
    std::uint16_t readData();
    std::uint16_t noise(unsigned bits);

    void takeTurn();
    void handOver(Buffer& buffer);
    void release(Buffer& buffer);
    void takeFromHost(const Buffer& buffer);
    void applySettings(const Buffer& buffer);
    void play(const Buffer& buffer);
    void advanceCounter();
    void fill(const Buffer& buffer);
    void fillPort(volatile std::uint16_t* port, int number);
    void fillAudio(volatile std::uint16_t* audio, int number);
    void scribble(const Buffer& buffer, FaultField field);
    void remember(std::uint64_t what);
    bool strikes(FaultKind fault);

    const int slot;
    const CardKind& kind;
    const TransferLayout& transfer;
    const std::uint32_t period_us;
    const AudioSource audio;
    const bool turnsByHand;
    CardReport& report;
    std::uint64_t& timeline;
    Faults plannedFaults;
    Random undefinedBits;
    Speaker speaker;

    std::uint64_t now = 0;
    State state = State::kStopped;
    BootRom rom;
    std::uint16_t registers[portMap::kPortsOfCard / 2] = {};
    bool wantsByte = false;
    bool byteBusy = false;
    bool byteRefused = false;

    Buffer buffers[2];
    int nextBuffer = 0;
    std::uint64_t nextTurn = 0;
    bool dead = false;
    std::uint32_t transferCounter = 0;
    std::uint64_t reportedCalls = 0;
    std::uint64_t samples = 0;  // of each line since the firmware started
    std::vector<Line> lines;
};

}  // namespace cardsim
