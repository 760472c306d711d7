#include "model/Line.h"

#include <algorithm>

namespace cardsim {

namespace {

constexpr std::uint16_t kQuietLevel = 0x0080;
constexpr std::uint16_t kSpeechLevel = 0x3000;

}  // namespace

Line::Line(const std::uint64_t& now_us) : now(now_us), voiceLevel(kQuietLevel) {}

void Line::setOffHook(bool isOffHook) {
    calls += isOffHook && !offHook ? 1 : 0;
    offHook = isOffHook;
}

void Line::setLevel(std::uint16_t level) {
    rememberLoudness();
    voiceLevel = std::min(level, layout::kMaxLevel);
}

void Line::setSpeaking(bool isSpeaking) {
    speaks = isSpeaking;
    setLevel(isSpeaking ? kSpeechLevel : kQuietLevel);
}

void Line::apply(const Settings& settings) {
    rememberLoudness();
    set = settings;
    wasLoud = wasLoud && set.trigger <= layout::kMaxLevel;
}

void Line::forgetSettings() {
    set = {};
    wasLoud = false;
}

// Before the level or the settings change: the delay counts from here if the line was loud.
void Line::rememberLoudness() {
    if (isLoud()) {
        quietSince = now;
    }
    wasLoud = isVoiceActive();
}

bool Line::isVoiceActive() const {
    const std::uint64_t held_us = std::uint64_t{set.delay_ms} * 1000;
    return isLoud() || (wasLoud && now - quietSince < held_us);
}

bool Line::isTriggered() const {
    return set.trigger == layout::kTriggerOffHook ? offHook : isVoiceActive();
}

std::string Line::takeCaller(std::size_t atMost) {
    std::string caller = takeFront(callerWaiting, atMost);
    callerWaiting.clear();
    return caller;
}

std::string Line::takeFront(std::string& waiting, std::size_t atMost) {
    std::string taken = waiting.substr(0, atMost);
    waiting.erase(0, atMost);
    return taken;
}

}  // namespace cardsim
