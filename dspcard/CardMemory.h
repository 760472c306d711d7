// Where the cards' shared memory lies: one region of physical memory, half of it for each card, and
// in each half the two transfer buffers of that card.
#pragma once

constexpr unsigned long kCardMemBase = 0xD0000;
constexpr unsigned long kCardMemLength = 0x4000;
constexpr unsigned long kBoardMemLength = 0x2000;
constexpr unsigned long kSecondBufferOffset = 0x1000;
