#include "DSPBoardFourChannel.h"

#include <algorithm>
#include <iostream>
#include <iterator>

#include "ConsoleLine.h"

void DSPBoardFourChannel::announceMonitorCopy() const {
    ConsoleLine(std::cout) << "Copying monitor data to buffer";
}

void DSPBoardFourChannel::announceDigits(int port, int n) const {
    ConsoleLine(std::cout) << "Sending Packet to Java: channel=" << port << " length=" << n;
}

void DSPBoardFourChannel::printVOX(ConsoleLine& line, int port) {
    const DSPPortDataFourChannel& data = lockedBuffer.recordingPortData[port];
    line << "VOX " << data.voiceLevel << (readVOXTrigger(port) ? "VOX Trigger " : "")
         << (data.triggered != 0 ? "Gen Trigger " : "");
}

void DSPBoardFourChannel::printDebugBuffer() const {
    ConsoleLine(std::cout) << "Debug Buffer: ";
    ConsoleLine words(std::cout);
    const std::size_t count =
        std::min<std::size_t>(lockedBuffer.debugLength, std::size(lockedBuffer.debugData));
    for (std::size_t i = 0; i < count; ++i) {
        words << lockedBuffer.debugData[i] << " ";
    }
}
