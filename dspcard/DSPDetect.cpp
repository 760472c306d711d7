#include "DSPDetect.h"

#include <fcntl.h>
#include <pasync.h>
#include <unistd.h>

#include <iostream>

#include "CardMemory.h"
#include "CardPorts.h"
#include "ConsoleLine.h"
#include "MemIO.h"

namespace {

constexpr unsigned char kFirstPattern = 0x55;
constexpr unsigned char kSecondPattern = 0xAA;
constexpr int kEchoAttempts = 3;
constexpr int kMemTestAttempts = 10;
constexpr unsigned kMemTestPause_ms = 100;

bool isBoardNumber(int brd) {
    return brd == 0 || brd == 1;
}

}  // namespace

DSPDetect::DSPDetect() {
    ConsoleLine(std::cout) << "DSPDetect: Opening /dev/port";
}

int DSPDetect::detectBoards(int& channelsBoard0, int& channelsBoard1, void* vmem) {
    int numBoards = 0;
    channelsBoard0 = kAbsent;
    channelsBoard1 = kAbsent;
    if (isPresent(vmem, 0)) {
        ConsoleLine(std::cerr) << "board0 present";
        channelsBoard0 = numChannels(0);
        ConsoleLine(std::cerr) << "channelsBoard0=" << channelsBoard0;
        numBoards = 1;
    }
    if (isPresent(vmem, 1) && isPresent(vmem, 0)) {
        ConsoleLine(std::cerr) << "board1 present";
        channelsBoard1 = numChannels(1);
        numBoards = 2;
    }
    return numBoards;
}

bool DSPDetect::isPresent(void*, int brd) {
    return portTest(brd);
}

bool DSPDetect::portTest(int brd) {
    return testEcho(brd).isRight;
}

DSPDetect::Echo DSPDetect::testEcho(int brd) {
    if (!openPortDevice()) {
        reportErrno("Couldn't access /dev/port errno=");
        return {};
    }
    ConsoleLine(std::cout) << "Doing port test for board " << brd;
    if (!isBoardNumber(brd)) {
        return {};
    }
    const int basePort = basePortOfBoard(brd);
    ConsoleLine(std::cout) << "Placing DSP in RESET";
    writePort(kEnableReset, basePort + kResetPort);
    writePort(kHoldInReset, basePort + kStatusPort);
    usleep(kResetSettle_us);

    Echo echo = echoOfFirstPattern(basePort);
    if (echo.isRight) {
        echo = echoOf(kSecondPattern, basePort);
    }
    if (echo.isRight) {
        ConsoleLine(std::cout, ConsoleLine::kUnflushed) << "port: " << basePort << " ok!";
    }
    return echo;
}

DSPDetect::Echo DSPDetect::echoOfFirstPattern(int basePort) {
    Echo echo;
    for (int attempt = 0; attempt < kEchoAttempts && !echo.isRight; ++attempt) {
        echo = echoOf(kFirstPattern, basePort);
        if (!echo.isRight) {
            ConsoleLine(std::cerr) << "read " << echo.read << " not 0x55";
        }
    }
    return echo;
}

DSPDetect::Echo DSPDetect::echoOf(unsigned char pattern, int basePort) {
    ConsoleLine(std::cout) << "Attempt to write to baseIOPort";
    writePort(pattern, basePort + kDataPort);
    ConsoleLine(std::cout) << "Attempt to read from baseIOPort ";
    const int read = readPort(basePort + kDataPort) & 0xFF;
    return {read == pattern, pattern, read};
}

int DSPDetect::numChannels(int brd) {
    ConsoleLine(std::cerr) << "numChannels opening /dev/port";
    if (!openPortDevice()) {
        reportErrno("Couldn't access /dev/port errno=");
        ConsoleLine(std::cerr) << "no Dev port so returning 0 channels";
        return 0;
    }
    if (!isBoardNumber(brd)) {
        ConsoleLine(std::cerr) << "Cannot determine no of channels for board " << brd;
        return 0;
    }
    if ((readPort(basePortOfBoard(brd) + kStatusPort) & kEightChannelCard) != 0) {
        ConsoleLine(std::cerr) << "Found 8 channel board";
        return 8;
    }
    ConsoleLine(std::cerr) << "Found 4 chan board";
    return 4;
}

bool DSPDetect::simpleMemTest(void* vmem, int brd) {
    ConsoleLine(std::cout) << "MemTest: board= " << brd;
    void* const boardMem = static_cast<char*>(vmem) + (brd == 0 ? 0 : kBoardMemLength);
    for (int attempt = 0; attempt < kMemTestAttempts; ++attempt) {
        MemWriteW(boardMem, 4, 3);
        MemWriteW(boardMem, 6, 4);
        if (MemReadW(boardMem, 4) == 3) {
            ConsoleLine(std::cout) << "board " << brd << " passed simple mem test";
            return true;
        }
        pt::psleep(kMemTestPause_ms);
    }
    ConsoleLine(std::cerr) << "Simple Memory Test Failed!";
    return false;
}

bool DSPDetect::memTest(void*, int) {
    return true;
}

int DSPDetect::readPort(int portNum) {
    signed char value = 0;
    if (lseek(portFd.get(), portNum, SEEK_SET) == -1) {
        reportErrno("lseek failed errno=");
        return -1;
    }
    if (read(portFd.get(), &value, 1) == -1) {
        reportErrno("read failed errno=");
        return -1;
    }
    return value;
}

void DSPDetect::writePort(short value, int portNum) {
    const auto lowByte = static_cast<unsigned char>(value & 0xFF);
    if (lseek(portFd.get(), portNum, SEEK_SET) == -1) {
        reportErrno("writePort: lseek failed errno=");
        return;
    }
    if (write(portFd.get(), &lowByte, 1) == -1) {
        reportErrno("writePort:write failed errno=");
    }
}

bool DSPDetect::openPortDevice() {
    portFd.reset();
    portFd.reset(open("/dev/port", O_RDWR));
    return portFd.isOpen();
}
