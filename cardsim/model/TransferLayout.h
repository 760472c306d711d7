// Where the DSP finds and leaves things in a transfer buffer of its card's memory, in 16-bit words
// from the start of the buffer (inside a port: from the start of the port).
#pragma once

#include <cstdint>

namespace cardsim {

struct TransferLayout {
    int channels;
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
    std::uint16_t defaultThreshold;
    std::uint32_t period_us;
};

namespace layout {

// Both kinds.
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
constexpr std::uint16_t kNeverTrigger = 0xFF01;
constexpr std::uint16_t kTriggerOffHook = 0xFF02;

}  // namespace layout

inline constexpr TransferLayout kFourChannels = {4,   2039, 2,   19,   354,  4,      300,
                                                 304, 50,   329, 1439, 1789, 0x115F, 450'000};
inline constexpr TransferLayout kEightChannels = {8,   1777, 2,   31,   194, 4,      150,
                                                  154, 30,   169, 1587, 0,   0x0A1F, 225'000};

constexpr const TransferLayout& layoutOf(int channels) {
    return channels == 4 ? kFourChannels : kEightChannels;
}

}  // namespace cardsim
