#include "DSPBoardEightChannel.h"

#include <iostream>

#include "ConsoleLine.h"
#include "MonitorBuffer.h"

namespace {

constexpr std::uint16_t kEvenOffHook = 0x0004;
constexpr std::uint16_t kEvenFPGATrigger = 0x0008;
constexpr std::uint16_t kOddOffHook = 0x0040;
constexpr std::uint16_t kOddFPGATrigger = 0x0080;

}  // namespace

bool DSPBoardEightChannel::readOffHook(int channel) {
    return readLineBit(channel, kEvenOffHook, kOddOffHook);
}

std::uint16_t DSPBoardEightChannel::getTriggerLevel(TriggerType tType) {
    static constexpr TriggerLevels kLevels = {
        0xFF01,  // TS_NEVER
        0xFF02,  // TS_OFF_HOOK
        0x02AF,  // TS_VOX_1
        0x047F,  // TS_VOX_2
        0x067F,  // TS_VOX_3
        0x0A1F,  // TS_VOX_4
        0x0E1F,  // TS_VOX_5
        0x115F,  // TS_VOX_6
    };
    return levelIn(kLevels, tType);
}

void DSPBoardEightChannel::checkMonitorSource(bool monitoring) const {
    if (monitoring && MonitorBuffer::getInstance().isEmpty()) {
        ConsoleLine(std::cout) << "ERROR: Monitoring but buffer is empty";
    }
}

void DSPBoardEightChannel::printVOX(ConsoleLine& line, int port) {
    const DSPPortDataEightChannel& data = lockedBuffer.recordingPortData[port];
    line << "VOX " << data.voiceLevel << (readVOXTrigger(port) ? " VOX Trigger " : "")
         << (data.triggered != 0 ? " Gen Trigger " : "");
    if (readLineBit(port, kEvenFPGATrigger, kOddFPGATrigger)) {
        line << " FPGA Triggered\n";
    }
}

bool DSPBoardEightChannel::readLineBit(int channel, std::uint16_t evenBit,
                                       std::uint16_t oddBit) const {
    return (readLineStatus(channel / 2) & (channel % 2 == 0 ? evenBit : oddBit)) != 0;
}
