// The registers of a card as the card has them: 16 port addresses, 16-bit words at even offsets.
#pragma once

#include <cstdint>

namespace cardsim::portMap {

constexpr std::uint16_t kFirstBase = 0x300;
constexpr std::uint16_t kPortsOfCard = 0x10;
constexpr int kMaxCards = 2;

// Offsets.
constexpr std::uint16_t kData = 0x0;
constexpr std::uint16_t kControl = 0x2;  // status of buffer 0 when read
constexpr std::uint16_t kBuffer1 = 0x4;
constexpr std::uint16_t kLines = 0x6;  // four words
constexpr std::uint16_t kReset = 0xE;

// Bits of the status.
constexpr std::uint16_t kHandedOver = 0x01;
constexpr std::uint16_t kByteBusy = 0x01;
constexpr std::uint16_t kWantsByte = 0x20;
// Change from reading to reading. The other bits without a meaning read 0: a host may write back
// what it has read, and that must be none of the words below.
constexpr std::uint16_t kUndefinedStatus = 0xFFC0;

// Words that act when written to a status register.
constexpr std::uint16_t kStop = 0x12;
constexpr std::uint16_t kRun = 0x1A;  // ends a strobe, releases a buffer
constexpr std::uint16_t kStrobe = 0x0A;

// What the reset register must hold for kStop to act.
constexpr std::uint16_t kResetArmed = 8;

// What a port reads as at which nobody answers: one of an empty slot, or one that is only written.
constexpr std::uint16_t kNobody = 0xFFFF;

// Of the card whose register is at that port; -1: of none.
constexpr int slotOf(std::uint16_t port) {
    const int slot = (port - kFirstBase) / kPortsOfCard;
    return port >= kFirstBase && slot < kMaxCards ? slot : -1;
}

}  // namespace cardsim::portMap
