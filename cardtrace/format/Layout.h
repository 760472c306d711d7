// The bytes of a trace file, little-endian; docs/traces.md tells them one by one.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cardtrace::fileLayout {

constexpr char kMagic[8] = {'\x89', 'C', 'T', 'R', 'A', 'C', 'E', '\n'};
constexpr std::uint16_t kVersion = 1;
constexpr std::uint32_t kBlockMagic = 0x4B425443;  // "CTBK"
constexpr std::size_t kMaxAbout = std::size_t{1} << 20;
constexpr std::size_t kBlockBytes = std::size_t{64} << 10;  // one begins when this much is reached
constexpr std::size_t kMaxRecordBytes = 20 + 0xFFFF;
constexpr std::size_t kMaxBlockBytes = kBlockBytes + kMaxRecordBytes;

struct FileHeader {
    char magic[8];
    std::uint16_t version;
    std::uint16_t unused;
    std::uint32_t aboutLength;  // of the JSON text behind the header
    std::uint32_t aboutChecksum;
    std::uint32_t checksum;  // of all before
};
static_assert(sizeof(FileHeader) == 24);

struct BlockHeader {
    std::uint32_t magic;
    std::uint32_t records;
    std::uint64_t number;   // from 0
    std::uint64_t time_us;  // of what passed_us of its first record counts from
    std::uint32_t length;   // of its records
    std::uint32_t stored;   // of them, compressed, behind the header
    std::uint32_t storedChecksum;
    std::uint32_t checksum;  // of all before
};
static_assert(sizeof(BlockHeader) == 40);

struct RecordHeader {
    std::uint8_t kind;
    std::uint8_t width;
    std::uint16_t port;
    std::uint32_t value;
    std::uint32_t thread;
    std::uint32_t passed_us;  // since the record before
    std::uint16_t flags;
    std::uint16_t dataLength;
};
static_assert(sizeof(RecordHeader) == 20);

}  // namespace cardtrace::fileLayout
