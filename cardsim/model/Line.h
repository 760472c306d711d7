// One telephone line at a card: what happens on it, and what the host has set for it. Belongs to
// its card; used on the thread whose access made the card catch up, or between accesses by whoever
// scripts it.
#pragma once

#include <cstdint>
#include <string>

#include "model/TransferLayout.h"

namespace cardsim {

class Line {
  public:
    // Set by the host.
    struct Settings {
        std::uint16_t beep = 0;
        std::uint16_t trigger = layout::kTriggerNever;  // or a threshold, or off hook
        std::uint16_t delay_ms = 0;
    };

    // now_us: the card's time. Nothing triggers until the host has set what does.
    explicit Line(const std::uint64_t& now_us);

    void setOffHook(bool isOffHook);
    void setRinging(bool isRinging) { rings = isRinging; }
    // The voice level from now on, 0 to 0x7FFF.
    void setLevel(std::uint16_t level);
    void setSpeaking(bool isSpeaking);
    // Digits and caller for the next buffers; more than a buffer takes waits for the one after.
    void dial(const std::string& digits) { digitsWaiting += digits; }
    void callFrom(const std::string& caller) { callerWaiting = caller; }

    bool isOffHook() const { return offHook; }
    bool isRinging() const { return rings; }
    bool isSpeaking() const { return speaks; }
    std::uint16_t level() const { return voiceLevel; }
    const Settings& settings() const { return set; }
    std::uint64_t callsSoFar() const { return calls; }

    // For the card.
    void apply(const Settings& settings);
    // As the firmware starts: no settings yet, and none heard before.
    void forgetSettings();
    // The level has reached the threshold, now or within the delay.
    bool isVoiceActive() const;
    // What the line's own trigger source says.
    bool isTriggered() const;
    std::string takeDigits(std::size_t atMost) { return takeFront(digitsWaiting, atMost); }
    std::string takeCaller(std::size_t atMost);

  private:
    static std::string takeFront(std::string& waiting, std::size_t atMost);
    bool isLoud() const { return voiceLevel >= set.trigger; }
    void rememberLoudness();

    const std::uint64_t& now;
    Settings set;
    std::uint16_t voiceLevel;
    std::uint64_t quietSince = 0;
    bool wasLoud = false;
    bool offHook = false;
    bool rings = false;
    bool speaks = false;
    std::uint64_t calls = 0;
    std::string digitsWaiting;
    std::string callerWaiting;
};

}  // namespace cardsim
