// The bench program: boots the cards and runs the read/write cycle in the foreground, with line 0
// monitored, debug output on and recording switched on. Ends only when it is killed.
#include <cstring>
#include <iostream>

#include "BoardMgr.h"
#include "ConsoleLine.h"
#include "DSPMessageBuffer.h"

namespace {

constexpr char kHelp[] =
    "Usage: main (no arguments; the load files are those in the working directory)\n"
    "Boots and serves the cards with line 0 monitored, debug output and recording, until killed.\n";
constexpr int kWrongUsage = 2;

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        const bool isAskedFor = std::strcmp(argv[1], "--help") == 0;
        (isAskedFor ? std::cout : std::cerr) << kHelp;
        return isAskedFor ? 0 : kWrongUsage;
    }
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
