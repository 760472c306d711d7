// The I/O ports of the cards: where their registers are and what goes into them. Registers are
// 16-bit words at even offsets from a card's base port; detection touches their low bytes only.
#pragma once

#include <cstdint>

constexpr std::uint16_t kBasePortBoard0 = 0x300;
constexpr std::uint16_t kBasePortBoard1 = 0x310;
constexpr unsigned kNumCardPorts = 32;  // 0x300 to 0x31F, both cards

constexpr std::uint16_t kDataPort = 0x0;
constexpr std::uint16_t kStatusPort = 0x2;   // buffer 0; boot handshake
constexpr std::uint16_t kStatusPort1 = 0x4;  // buffer 1
constexpr std::uint16_t kLinePort = 0x6;     // the first of four
constexpr std::uint16_t kResetPort = 0xE;

// Read from a status port.
constexpr std::uint16_t kBufferHandedOver = 0x0001;
constexpr std::uint16_t kBootByteBusy = 0x0001;
constexpr std::uint16_t kEightChannelCard = 0x0004;
constexpr std::uint16_t kBootByteWanted = 0x0020;

// Written to a status port.
constexpr std::uint16_t kReleaseBuffer = 0x001A;
constexpr std::uint16_t kHoldInReset = 0x0012;
constexpr std::uint16_t kLetRun = 0x001A;
constexpr std::uint16_t kStrobeBootByte = 0x000A;
constexpr std::uint16_t kEndStrobe = 0x001A;

// Written to the reset port before the DSP is held in reset.
constexpr std::uint16_t kEnableReset = 8;

// How long the DSP is given to go into or out of reset.
constexpr unsigned kResetSettle_us = 100;

constexpr std::uint16_t basePortOfBoard(int board) {
    return board == 0 ? kBasePortBoard0 : kBasePortBoard1;
}
