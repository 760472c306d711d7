#include "DSPBoardEightChannel.h"

#include <iostream>

#include "ConsoleLine.h"
#include "MonitorBuffer.h"
#include "TriggerLevels.h"

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
    return triggerLevel(tType, &TriggerLevels::eightChannel);
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
