// A trace unpacked, one record behind the other, as replaying needs it: written into a file by the
// launcher, read where it lies in memory by the preload library.
#pragma once

#include <cstddef>
#include <cstdint>

#include "format/Record.h"

namespace cardtrace {

struct ScriptRecord {
    std::uint64_t time_us;
    std::uint64_t number;  // of the record in the trace, from 1
    std::uint32_t value;
    std::uint32_t dataLength;
    std::uint16_t port;
    std::uint16_t flags;
    Kind kind;
    std::uint8_t width;
    std::uint16_t unused;

    const char* data() const { return reinterpret_cast<const char*>(this + 1); }
    bool isAccess() const { return kind <= Kind::kDeviceOut; }
    bool isRead() const { return kind == Kind::kIn || kind == Kind::kDeviceIn; }
};

// The place of a record with so much data behind it, up to the next one.
constexpr std::size_t scriptLength(std::size_t dataLength) {
    return sizeof(ScriptRecord) + (dataLength + 7) / 8 * 8;
}

class Script {
  public:
    Script(const void* begin, std::size_t length)
        : first(static_cast<const char*>(begin)), end(first + length) {}

    // Null when there is none.
    const ScriptRecord* begin() const { return at(first); }
    const ScriptRecord* after(const ScriptRecord* record) const {
        return at(reinterpret_cast<const char*>(record) + scriptLength(record->dataLength));
    }

  private:
    const ScriptRecord* at(const char* place) const {
        return place < end ? reinterpret_cast<const ScriptRecord*>(place) : nullptr;
    }

    const char* const first;
    const char* const end;
};

}  // namespace cardtrace
