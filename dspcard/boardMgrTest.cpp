// The bench program: boots the cards and runs the read/write cycle in the foreground, with line 0
// monitored, debug output on and recording switched on. Ends only when it is killed.
#include <iostream>

#include "BoardMgr.h"
#include "ConsoleLine.h"
#include "DSPMessageBuffer.h"

int main() {
    const DSPTransferFourChannel transfer{};
    ConsoleLine(std::cout) << "Trasfer size " << sizeof(transfer);
    BoardMgr& boardMgr = BoardMgr::getInstance();
    const bool success = boardMgr.bootload();
    ConsoleLine(std::cerr) << (success ? "Bootload succeeded" : "Bootload failed");
    boardMgr.setMonitorChannel(0);
    boardMgr.enableDebug(true);
    boardMgr.startRecording();
    ConsoleLine(std::cerr) << "No Trying to read write dsps";
    boardMgr.readWriteDSPs();
}
