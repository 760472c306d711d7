// What the client chooses for every telephone line: what makes its trigger rise and fall, which
// beep the DSP sounds on it, and the trigger delay. The table has the layout of the payload of a
// LineSettingsPacket.
#pragma once

#include "javaint/Packet.h"

enum TriggerType : unsigned char {
    TS_NEVER = 0,
    TS_OFF_HOOK = 1,
    TS_VOX_1 = 2,  // the lowest voice-activity threshold
    TS_VOX_2 = 3,
    TS_VOX_3 = 4,
    TS_VOX_4 = 5,
    TS_VOX_5 = 6,
    TS_VOX_6 = 7,  // the highest
};

struct LineSettingCmd {
    unsigned char beepType = BEEP_OFF;
    unsigned char trigType = TS_VOX_4;
    unsigned char trigDelaySecs = 3;
};

class LineSettingsCmd {
  public:
    static constexpr int kNumChannels = 16;

    LineSettingsCmd() = default;

    // A copy of the entry of a global channel, which must be 0 to 15.
    LineSettingCmd getLineSettingCmd(int channel) const { return channelSettings[channel]; }

  private:
    LineSettingCmd channelSettings[kNumChannels];
};

static_assert(sizeof(LineSettingCmd) == 3 && sizeof(LineSettingsCmd) == 48,
              "the table is the payload of a LineSettingsPacket");
