// The kinds of cards: where the DSP of each finds and leaves things in a transfer buffer of its
// card's memory, and everything else in which one kind differs from another.
//
// A further kind is one more entry of kCardKinds; the options of the launcher, the registers, the
// running DSP and the room in the report follow from the list. Besides, it needs
//   - a load file and sections, in firmware/makeSections.cpp and firmware/CMakeLists.txt;
//   - the numbers 4 and 8 in man/cardsim.1, docs/scenarios.md and docs/hardware.md;
//   - code in Card.cpp only where its DSP works in another way: other fields in a buffer, other
//     commands, more lines than its line status words have room for.
#pragma once

#include <algorithm>
#include <cstdint>
#include <stdexcept>

namespace cardsim {

// In 16-bit words from the start of the buffer; inside a port, from the start of the port.
struct TransferLayout {
    int words;  // the whole buffer
    int command;
    int firstPort;
    int portWords;
    int audio;  // inside a port, as the next four
    int audioWords;
    int digits;
    int digitsBytes;
    int caller;
    int playbackAudio;
    int debug;  // 0: none
};

// One of the four words that tell which lines are off hook: first the bits of the lowest line.
struct LineStatusLayout {
    int linesOfWord;
    int bitsOfLine;
    std::uint16_t onHook;  // what is set in the bits of a line
    std::uint16_t offHook;
    std::uint16_t triggered;
};

struct CardKind {
    int channels;  // by which the kind is known
    TransferLayout transfer;
    LineStatusLayout lineStatus;
    std::uint16_t status;     // what is always set in the control register when read
    std::uint32_t period_us;  // between two buffers
};

inline constexpr CardKind kCardKinds[] = {
    [] {
        CardKind kind{};
        kind.channels = 4;
        kind.transfer.words = 2039;
        kind.transfer.command = 2;
        kind.transfer.firstPort = 19;
        kind.transfer.portWords = 354;
        kind.transfer.audio = 4;
        kind.transfer.audioWords = 300;
        kind.transfer.digits = 304;
        kind.transfer.digitsBytes = 50;
        kind.transfer.caller = 329;
        kind.transfer.playbackAudio = 1439;
        kind.transfer.debug = 1789;
        kind.lineStatus.linesOfWord = 1;
        kind.lineStatus.bitsOfLine = 16;
        kind.lineStatus.onHook = 0x04;
        kind.status = 0;
        kind.period_us = 450'000;
        return kind;
    }(),
    [] {
        CardKind kind{};
        kind.channels = 8;
        kind.transfer.words = 1777;
        kind.transfer.command = 2;
        kind.transfer.firstPort = 31;
        kind.transfer.portWords = 194;
        kind.transfer.audio = 4;
        kind.transfer.audioWords = 150;
        kind.transfer.digits = 154;
        kind.transfer.digitsBytes = 30;
        kind.transfer.caller = 169;
        kind.transfer.playbackAudio = 1587;
        kind.transfer.debug = 0;
        kind.lineStatus.linesOfWord = 2;
        kind.lineStatus.bitsOfLine = 4;
        kind.lineStatus.offHook = 0x04;
        kind.lineStatus.triggered = 0x08;
        kind.status = 0x04;
        kind.period_us = 225'000;
        return kind;
    }(),
};

// There must be such a kind.
constexpr const CardKind& kindOf(int channels) {
    for (const CardKind& kind : kCardKinds) {
        if (kind.channels == channels) {
            return kind;
        }
    }
    throw std::invalid_argument("no kind of card has so many channels");
}

constexpr const TransferLayout& layoutOf(int channels) {
    return kindOf(channels).transfer;
}

// The most of anything that a kind of card has.
template <class Count>
constexpr int mostOf(Count countOf) {
    int most = 0;
    for (const CardKind& kind : kCardKinds) {
        most = std::max(most, countOf(kind));
    }
    return most;
}
constexpr int kMaxLines = mostOf([](const CardKind& kind) { return kind.channels; });
constexpr int kMaxAudioWords =
    mostOf([](const CardKind& kind) { return kind.transfer.audioWords; });

// What all kinds have in common.
namespace layout {

constexpr int kCounter = 0;   // two words, the low one first
constexpr int kSettings = 2;  // inside the command: three words a port
constexpr int kLevel = 0;     // inside a port
constexpr int kOffHook = 1;
constexpr int kTriggered = 2;
constexpr int kRinging = 3;
constexpr int kCallerBytes = 50;
constexpr int kSecondBuffer = 0x800;
constexpr int kCardWords = 0x1000;

constexpr std::uint16_t kApplySettings = 2;
constexpr std::uint16_t kVoiceActive = 0x8000;
constexpr std::uint16_t kMaxLevel = 0x7FFF;
constexpr std::uint16_t kTriggerNever = 0xFF01;
constexpr std::uint16_t kTriggerOffHook = 0xFF02;

}  // namespace layout

static_assert(mostOf([](const CardKind& kind) { return kind.transfer.words; }) <=
              layout::kSecondBuffer);

}  // namespace cardsim
