// What makes the DSP of a card trigger as the client chose: the level word for each TriggerType, by
// kind of card. A voice-activity threshold, or one of the two words that are none.
#pragma once

#include <array>
#include <cstdint>

#include "LineSettingsCmd.h"

struct TriggerLevels {
    std::uint16_t fourChannel;
    std::uint16_t eightChannel;
};

inline constexpr std::array<TriggerLevels, 8> kTriggerLevels = {{
    {0xFF01, 0xFF01},  // TS_NEVER
    {0xFF02, 0xFF02},  // TS_OFF_HOOK
    {0x04FF, 0x02AF},  // TS_VOX_1
    {0x089F, 0x047F},  // TS_VOX_2
    {0x0C9F, 0x067F},  // TS_VOX_3
    {0x115F, 0x0A1F},  // TS_VOX_4
    {0x155E, 0x0E1F},  // TS_VOX_5
    {0x1C20, 0x115F},  // TS_VOX_6
}};

// kind: &TriggerLevels::fourChannel or &TriggerLevels::eightChannel. 0 for a value that is no
// TriggerType.
constexpr std::uint16_t triggerLevel(TriggerType tType, std::uint16_t TriggerLevels::*kind) {
    return tType < kTriggerLevels.size() ? kTriggerLevels[tType].*kind : std::uint16_t{0};
}
