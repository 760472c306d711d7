// Puts the firmware into one card's DSP: pulses its reset, streams a boot table to the DSP's
// on-chip boot loader through the card's data port, byte by byte with a handshake, and writes the
// card's register defaults. startDSP then ends the table, which starts the firmware.
//
// The blocks of the table come from a text load file that names a binary section file for each
// block; BootLoadFile reads it. Both are looked for in the working directory when their names are
// relative.
//
// Runs on the thread that drives the cards, which must hold port permission. Nothing else may touch
// the card meanwhile. Nothing throws and nothing is retried: after a failure the DSP is part-way
// through the table, and the next bootload starts over with a reset.
#pragma once

#include <cstdint>
#include <ctime>

class DSPBootloader {
  public:
    // Must come before anything else: until then the registers of no card are meant. basePort:
    // 0x300 or 0x310; nChannels: 4, anything else counts as 8; brdNum: 0, anything else counts
    // as 1.
    void init(unsigned int basePort, unsigned int nChannels, int brdNum);

    // Resets the DSP, sends the header and every block of the load file and writes the register
    // defaults. The DSP then waits for a further block. False at the first failure; a card that
    // does not answer fails once 200 ms of processor time have passed.
    bool bootload(const char* bootFileName);
    // Ends the table. True even if the DSP did not take it.
    bool startDSP();

    // True in any case.
    bool resetDSP(bool inReset);
    // Sends a block of size words from the section file to the DSP's address addr.
    bool bootSection(unsigned long addr, int size, const char* sectionFileName);
    // Sends the high byte, then the low byte.
    bool bootWord(std::uint16_t w);
    // False when the DSP does not ask for the byte, or does not take it, within 200 ms each.
    bool bootByte(std::uint8_t b);
    void loadDefaults();

    // A wait of 0 to 2147 ms of the processor time that the whole process uses.
    void setTimeout(int t_ms);
    bool hasTimedOut();

  private:
    bool sendHeader();
    bool sendSections(const char* bootFileName);
    bool sendSectionWords(int size, const char* sectionFileName);
    bool waitUntil(std::uint16_t statusBit, bool set);
    std::uint16_t readStatus() const;
    void writeRegister(std::uint16_t offset, std::uint16_t value) const;

    std::uint32_t baseIOPort = 0;
    int numChannels = 0;
    int boardNum = 0;
    std::clock_t timeoutEnd = 0;  // the processor time at which the wait is over
};
