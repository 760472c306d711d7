#include <algorithm>
#include <cstdio>
#include <cstring>

#include "../LineSettingsCmd.h"
#include "Packet.h"

LineSettingsPacket::LineSettingsPacket() {
    static_assert(sizeof(LineSettingsCmd) == sizeof(data), "the payload is the settings table");
    const LineSettingsCmd defaults;
    std::memcpy(data, &defaults, sizeof(data));
}

LineSettingsPacket::LineSettingsPacket(const LineSettingsPacket* orig) {
    std::copy_n(orig->getData(), orig->getLength(), data);
}

unsigned char LineSettingsPacket::getBeepType(int channel) const {
    return data[3 * channel];
}

unsigned char LineSettingsPacket::getTrigType(int channel) const {
    return data[3 * channel + 1];
}

unsigned char LineSettingsPacket::getTrigDelaySecs(int channel) const {
    return data[3 * channel + 2];
}

int LineSettingsPacket::getLength() const {
    return sizeof(data);
}

unsigned char* LineSettingsPacket::getData() const {
    return const_cast<unsigned char*>(data);
}

void LineSettingsPacket::read(unsigned char* theData, int length) {
    std::copy_n(theData, std::clamp(length, 0, getLength()), data);
}

pt::string LineSettingsPacket::toString() const {
    pt::string text = "LineSettingsPacket:\n";
    for (int i = 0; i < LineSettingsCmd::kNumChannels; ++i) {
        char line[64];
        std::snprintf(line, sizeof(line), "Chan=%d Beep=%d, Trigger=%d, VOXTimeout=%d\n", i,
                      getBeepType(i), getTrigType(i), getTrigDelaySecs(i));
        text += line;
    }
    return text;
}
