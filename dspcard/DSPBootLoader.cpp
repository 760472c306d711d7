#include "DSPBootLoader.h"

#include <sys/io.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "BootLoadFile.h"
#include "CardPorts.h"
#include "ConsoleLine.h"
#include "SectionFile.h"

namespace {

constexpr int kHandshakeTimeout_ms = 200;
constexpr std::uint16_t kEndOfTable = 0x0000;
constexpr std::uint16_t kExtendedDestination = 0x0000;

struct HeaderWord {
    const char* label;
    std::uint16_t word;
};

constexpr HeaderWord kHeader[] = {
    {"Boot Mode", 0x08AA},  // the keyword of an 8-bit boot table
    {"wait state reg", 0x7FFF}, {"bank switch reg", 0xF800},
    {"extended entry", 0x0000}, {"entry", 0x0080},
};

constexpr std::uint16_t lowWord(unsigned long value) {
    return static_cast<std::uint16_t>(value & 0xFFFF);
}

}  // namespace

void DSPBootloader::init(unsigned int basePort, unsigned int nChannels, int brdNum) {
    baseIOPort = basePort;
    numChannels = static_cast<int>(nChannels);
    boardNum = brdNum;
}

bool DSPBootloader::bootload(const char* bootFileName) {
    ConsoleLine(std::cerr) << "Bootload:" << bootFileName;
    resetDSP(true);
    resetDSP(false);
    if (!sendHeader() || !sendSections(bootFileName)) {
        return false;
    }
    loadDefaults();
    return true;
}

bool DSPBootloader::resetDSP(bool inReset) {
    if (inReset) {
        ConsoleLine(std::cerr) << "BootLoader placing DSP in reset, port="
                               << baseIOPort + kResetPort;
        writeRegister(kResetPort, kEnableReset);
        writeRegister(kStatusPort, kHoldInReset);
    } else {
        ConsoleLine(std::cerr) << "BootLoader placing DSP out of reset, port="
                               << baseIOPort + kStatusPort;
        writeRegister(kStatusPort, kLetRun);
    }
    usleep(kResetSettle_us);
    return true;
}

bool DSPBootloader::sendHeader() {
    return std::all_of(std::begin(kHeader), std::end(kHeader), [this](const HeaderWord& header) {
        ConsoleLine(std::cerr) << header.label;
        return bootWord(header.word);
    });
}

bool DSPBootloader::sendSections(const char* bootFileName) {
    ConsoleLine(std::cerr) << "Bootload opening file";
    BootLoadFile loadFile(bootFileName);
    if (!loadFile.isOpen()) {
        ConsoleLine(std::cerr) << "Cannot open file " << bootFileName;
        return false;
    }
    BootLoadFile::Record record;
    const bool hasHeader = loadFile.skipHeader();
    while (hasHeader && loadFile.readRecord(record)) {
        if (!record.isValid()) {
            ConsoleLine(std::cerr)
                << bootFileName << ": record " << loadFile.recordNumber() << ": " << record.problem;
            return false;
        }
        if (!bootSection(record.address, static_cast<int>(record.size), record.sectionFile.text)) {
            ConsoleLine(std::cerr) << "Boot Section failed addr=0x" << record.addressToken.text + 1;
            return false;
        }
    }
    if (loadFile.hasReadError()) {
        ConsoleLine(std::cerr) << bootFileName << ": cannot be read after record "
                               << loadFile.recordNumber();
        return false;
    }
    return hasHeader;
}

bool DSPBootloader::bootSection(unsigned long addr, int size, const char* sectionFileName) {
    ConsoleLine(std::cerr, ConsoleLine::kUnflushed)
        << "Attempt Boot Section - addr: " << addr << " size: " << size
        << " sectionName: " << sectionFileName;
    return bootWord(lowWord(static_cast<unsigned long>(size))) && bootWord(kExtendedDestination) &&
           bootWord(lowWord(addr)) && sendSectionWords(size, sectionFileName);
}

bool DSPBootloader::sendSectionWords(int size, const char* sectionFileName) {
    SectionFile section(sectionFileName);
    if (!section.isOpen()) {
        return false;
    }
    while (size > 0) {
        SectionFile::Words words;
        const int wordsRead = section.read(words, size);
        if (wordsRead == 0) {
            return false;
        }
        if (!std::all_of(words, words + wordsRead, [this](auto word) { return bootWord(word); })) {
            return false;
        }
        size -= wordsRead;
    }
    ConsoleLine(std::cout) << "";
    ConsoleLine(std::cerr, ConsoleLine::kUnflushed)
        << "Boot section succeeded: " << sectionFileName << " Checksum: " << section.checksum();
    return true;
}

bool DSPBootloader::startDSP() {
    bootWord(kEndOfTable);
    return true;
}

bool DSPBootloader::bootWord(std::uint16_t w) {
    return bootByte(static_cast<std::uint8_t>(w >> 8)) &&
           bootByte(static_cast<std::uint8_t>(w & 0xFF));
}

bool DSPBootloader::bootByte(std::uint8_t b) {
    if (!waitUntil(kBootByteWanted, true)) {
        return false;
    }
    writeRegister(kDataPort, b);
    writeRegister(kStatusPort, kStrobeBootByte);
    if (!waitUntil(kBootByteBusy, false)) {
        return false;
    }
    writeRegister(kStatusPort, kEndStrobe);
    return true;
}

bool DSPBootloader::waitUntil(std::uint16_t statusBit, bool set) {
    setTimeout(kHandshakeTimeout_ms);
    while (((readStatus() & statusBit) != 0) != set) {
        if (hasTimedOut()) {
            return false;
        }
    }
    return true;
}

void DSPBootloader::loadDefaults() {
    const bool fourChannel = numChannels == 4;
    const std::uint16_t line = fourChannel ? 0x01 : 0x11;
    writeRegister(kStatusPort, static_cast<std::uint16_t>(readStatus() & 0xFFFE));
    writeRegister(kStatusPort1, 0);
    writeRegister(kLinePort, line);
    writeRegister(kLinePort + 2, line);
    writeRegister(kLinePort + 4, line);
    if (fourChannel) {
        writeRegister(kLinePort + 6, line);
        writeRegister(kResetPort, boardNum == 0 ? 2 : 0);
    } else if (boardNum == 0) {
        writeRegister(kLinePort + 6, 0x21);
    } else {
        writeRegister(kResetPort, 1);
    }
}

void DSPBootloader::setTimeout(int t_ms) {
    timeoutEnd = std::clock() + t_ms * (CLOCKS_PER_SEC / 1000);
}

bool DSPBootloader::hasTimedOut() {
    return std::clock() > timeoutEnd;
}

std::uint16_t DSPBootloader::readStatus() const {
    return inw(static_cast<std::uint16_t>(baseIOPort + kStatusPort));
}

void DSPBootloader::writeRegister(std::uint16_t offset, std::uint16_t value) const {
    outw(value, static_cast<std::uint16_t>(baseIOPort + offset));
}
