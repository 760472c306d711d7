// One thing that host and cards said to each other, as a trace holds it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace cardtrace {

enum class Kind : std::uint8_t {
    kIn = 1,          // port instruction: read
    kOut = 2,         // and write
    kDeviceIn = 3,    // a byte through /dev/port: read; value is errno when it failed
    kDeviceOut = 4,   // and written
    kPermission = 5,  // asked for or given back; first, count: the ports; how: 1 or 0
    kOpenPorts = 6,   // /dev/port; how: the flags of open
    kOpenMemory = 7,  // /dev/mem; the same
    kMap = 8,         // of /dev/mem; first, count: the bytes; how: the protection
    kLock = 9,        // of /dev/mem; the same; how: fcntl's command, above it the kind of lock
    kSleep = 10,      // of the thread that drives the cards; count: microseconds
    kBuffers = 11,    // both buffers of a card, right before the release that follows
    kCards = 12,      // a process has the cards from here on, in reset; value: its number
    kFile = 13,       // opened by the thread that drives the cards; the data is its name
    kEnd = 14,        // of the recording; value: the program's exit status
};
constexpr std::uint8_t kLastKind = 14;

struct Record {
    static constexpr std::uint16_t kFailed = 1;          // value is an errno
    static constexpr std::uint16_t kWithoutAudio = 2;    // checksums stand behind the buffers
    static constexpr std::uint16_t kWithoutNumbers = 4;  // callers and digits are masked
    // Of a process that has not the cards: nobody answers.
    static constexpr std::uint16_t kUnanswered = 8;

    Kind kind = Kind::kEnd;
    std::uint8_t width = 0;   // of an access, in bytes
    std::uint16_t port = 0;   // of an access; of buffers, the slot of the card
    std::uint32_t value = 0;  // read or written; errno of anything else, 0 when it went well
    std::uint32_t thread = 0;
    std::uint16_t flags = 0;
    std::uint64_t time_us = 0;  // since the recording began
    std::string data;           // the rest, in the form that the file has it

    bool isAccess() const { return kind <= Kind::kDeviceOut; }
    bool isUnanswered() const { return (flags & kUnanswered) != 0; }
    bool isRead() const { return kind == Kind::kIn || kind == Kind::kDeviceIn; }
    bool failed() const { return (flags & kFailed) != 0; }
    bool isCall() const { return kind >= Kind::kPermission && kind <= Kind::kSleep; }
};

// The data of calls.
struct CallData {
    std::uint64_t first;
    std::uint64_t count;
    std::uint32_t how;
};
std::string dataOf(const CallData& call);
// All zero when the data is of another length.
CallData callOf(const Record& record);

// The data of buffers: the memory of the card, and behind it, when audio was left out, what stood
// in each of its places.
constexpr std::size_t kCardMemoryBytes = 0x2000;
struct LeftOut {
    std::uint16_t offset;  // bytes from the start of the card's memory
    std::uint16_t length;
    std::uint32_t checksum;  // CRC-32
};
static_assert(sizeof(LeftOut) == 8);

}  // namespace cardtrace
