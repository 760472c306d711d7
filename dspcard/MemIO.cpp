#include "MemIO.h"

#include <cstring>

namespace {

const volatile std::uint16_t* cardWord(const void* baseAddr, unsigned long offset) {
    return reinterpret_cast<const volatile std::uint16_t*>(static_cast<const char*>(baseAddr) +
                                                           offset);
}

volatile std::uint16_t* cardWord(void* baseAddr, unsigned long offset) {
    return reinterpret_cast<volatile std::uint16_t*>(static_cast<char*>(baseAddr) + offset);
}

}  // namespace

// The host side moves by memcpy: the words land in structures with fields of other types.

void MemReadBlockW(const void* baseAddr, unsigned long offset, std::uint16_t* dest, int numWords) {
    const volatile std::uint16_t* card = cardWord(baseAddr, offset);
    for (; numWords > 0; --numWords) {
        const std::uint16_t word = *card++;
        std::memcpy(dest++, &word, sizeof(word));
    }
}

void MemWriteBlockW(void* baseAddr, unsigned long offset, const std::uint16_t* source,
                    int numWords) {
    volatile std::uint16_t* card = cardWord(baseAddr, offset);
    for (; numWords > 0; --numWords) {
        std::uint16_t word;
        std::memcpy(&word, source++, sizeof(word));
        *card++ = word;
    }
}

std::uint16_t MemReadW(const void* baseAddr, unsigned long offset) {
    return *cardWord(baseAddr, offset);
}

void MemWriteW(void* baseAddr, unsigned long offset, std::uint16_t val) {
    *cardWord(baseAddr, offset) = val;
}

std::uint32_t MemReadL(const void* baseAddr, unsigned long offset) {
    const std::uint32_t low = MemReadW(baseAddr, offset);
    const std::uint32_t high = MemReadW(baseAddr, offset + sizeof(std::uint16_t));
    return low | high << 16;
}
