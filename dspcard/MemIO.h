// Word access to card memory. Every word moves by exactly one 16-bit access, made at the time of
// the call, in ascending address order: the cards know no other width.
//
// baseAddr points into the mapping of the card memory, offset counts bytes from it. Nothing is
// bounds-checked: the caller keeps every access inside the mapping. Used by the thread that drives
// the cards.
#pragma once

#include <cstdint>

// Copies numWords words; 0 or fewer touch nothing.
void MemReadBlockW(const void* baseAddr, unsigned long offset, std::uint16_t* dest, int numWords);
void MemWriteBlockW(void* baseAddr, unsigned long offset, const std::uint16_t* source,
                    int numWords);

std::uint16_t MemReadW(const void* baseAddr, unsigned long offset);
void MemWriteW(void* baseAddr, unsigned long offset, std::uint16_t val);

// Two words, the low one first.
std::uint32_t MemReadL(const void* baseAddr, unsigned long offset);
