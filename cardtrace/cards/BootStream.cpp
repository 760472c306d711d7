#include "cards/BootStream.h"

namespace cardtrace {

namespace {

constexpr std::uint32_t kHeaderBytes = 10;      // keyword, two registers, entry page and entry
constexpr std::uint32_t kBlockHeaderBytes = 6;  // size, page, address

}  // namespace

BootStream::Byte BootStream::next() const {
    return {place, block, bytes + 1};
}

void BootStream::take(std::uint8_t byte) {
    ++bytes;
    if (bytes % 2 == 1) {
        highByte = byte;
    } else {
        takeWord(static_cast<std::uint16_t>(highByte << 8 | byte));
    }
}

void BootStream::takeWord(std::uint16_t word) {
    switch (place) {
        case Place::kHeader:
            if (bytes == kHeaderBytes) {
                place = Place::kBlockHeader;
                bytes = 0;
            }
            break;
        case Place::kBlockHeader:
            if (bytes == 2) {
                blockWords = word;
                sum = 0;
                place = word == 0 ? Place::kEnd : place;
            } else if (bytes == kBlockHeaderBytes) {
                blockAddress = word;
                place = Place::kBlock;
                bytes = 0;
            }
            break;
        case Place::kBlock:
            sum = static_cast<std::uint16_t>(sum + word);
            if (bytes == 2u * blockWords) {
                place = Place::kBlockHeader;
                bytes = 0;
                ++block;
            }
            break;
        case Place::kEnd:
            break;
    }
}

}  // namespace cardtrace
