// The checksum of all that a trace holds: CRC-32.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <cstdint>

namespace cardtrace {

inline std::uint32_t checksum(const void* bytes, std::size_t count) {
    return static_cast<std::uint32_t>(
        crc32(0, static_cast<const Bytef*>(bytes), static_cast<uInt>(count)));
}

}  // namespace cardtrace
