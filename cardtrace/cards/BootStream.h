// The boot table that a host sends to a card, byte by byte: which block each byte belongs to.
#pragma once

#include <cstdint>

namespace cardtrace {

class BootStream {
  public:
    enum class Place { kHeader, kBlockHeader, kBlock, kEnd };

    struct Byte {
        Place place;
        int block;             // from 0; of a header, that of the block it begins
        std::uint32_t number;  // inside the place, from 1
    };

    void restart() { *this = BootStream(); }
    // Where the next byte will stand.
    Byte next() const;
    void take(std::uint8_t byte);

    bool hasEnded() const { return place == Place::kEnd; }
    // Of the block that bytes were taken of last.
    std::uint16_t address() const { return blockAddress; }
    std::uint16_t words() const { return blockWords; }
    // Sum of its words so far.
    std::uint16_t checksum() const { return sum; }
    bool endsBlock() const { return place == Place::kBlockHeader && bytes == 0 && block > 0; }

  private:
    void takeWord(std::uint16_t word);

    Place place = Place::kHeader;
    int block = 0;
    std::uint32_t bytes = 0;  // taken of the place
    std::uint16_t highByte = 0;
    std::uint16_t blockWords = 0;
    std::uint16_t blockAddress = 0;
    std::uint16_t sum = 0;
};

}  // namespace cardtrace
