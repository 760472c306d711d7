#include "format/TraceWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <system_error>

#include "format/Checksum.h"

namespace cardtrace {

namespace {

constexpr int kLevel = 3;

template <class Header>
void seal(Header& header) {
    header.checksum = checksum(&header, offsetof(Header, checksum));
}

}  // namespace

TraceWriter::TraceWriter(const std::string& path, const std::string& about, std::uint64_t mostBytes)
    : name(path),
      file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
      limit(mostBytes),
      compressor(ZSTD_createCCtx(), ZSTD_freeCCtx) {
    if (file == -1) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path);
    }
    fileLayout::FileHeader header{};
    std::memcpy(header.magic, fileLayout::kMagic, sizeof(header.magic));
    header.version = fileLayout::kVersion;
    header.aboutLength = static_cast<std::uint32_t>(about.size());
    header.aboutChecksum = checksum(about.data(), about.size());
    seal(header);
    writeAt(&header, sizeof(header), 0);
    writeAt(about.data(), about.size(), sizeof(header));
    firstBlock = position = sizeof(header) + about.size();
    if (about.size() > fileLayout::kMaxAbout || (limit != 0 && limit < firstBlock + kLeastBytes)) {
        close(file);
        throw std::invalid_argument(path + ": must be at least " +
                                    std::to_string(firstBlock + kLeastBytes) + " bytes long");
    }
}

TraceWriter::~TraceWriter() {
    close(file);
}

void TraceWriter::add(const Record& record) {
    constexpr std::uint64_t kLongestPause = std::numeric_limits<std::uint32_t>::max();
    const bool isLate = record.time_us - lastTime > kLongestPause || record.time_us < lastTime;
    if (records != 0 && (open.size() >= fileLayout::kBlockBytes || isLate)) {
        writeBlock();
    }
    if (records == 0) {
        blockTime = lastTime = record.time_us;
    }
    const fileLayout::RecordHeader header = {
        static_cast<std::uint8_t>(record.kind),
        record.width,
        record.port,
        record.value,
        record.thread,
        static_cast<std::uint32_t>(record.time_us - lastTime),
        record.flags,
        static_cast<std::uint16_t>(record.data.size()),
    };
    open.append(reinterpret_cast<const char*>(&header), sizeof(header));
    open.append(record.data);
    lastTime = record.time_us;
    ++records;
}

void TraceWriter::sync() {
    if (records != 0) {
        writeBlock();
    }
    const bool isOnDisk = fdatasync(file) == 0 || errno == EINVAL;  // or there is no disk below it
    if (!isOnDisk) {
        fails = true;
        throw std::system_error(errno, std::generic_category(), "cannot write " + name);
    }
}

void TraceWriter::leaveGap() {
    if (records != 0) {
        writeBlock();
    }
    ++blocks;
}

// Gone from the memory whatever becomes of it: when it cannot be written, its number is a gap.
void TraceWriter::writeBlock() {
    const fileLayout::BlockHeader header = packBlock();
    fails = true;
    const std::uint64_t length = sizeof(header) + header.stored;
    if (limit != 0 && position + length > limit) {
        // What an earlier round left behind this one is older than all that stands before it.
        if (ftruncate(file, static_cast<off_t>(position)) != 0) {
            throw std::system_error(errno, std::generic_category(), "cannot write " + name);
        }
        position = firstBlock;
    }
    writeAt(stored.data(), header.stored, position + sizeof(header));
    writeAt(&header, sizeof(header), position);
    position += length;
    fails = false;
}

fileLayout::BlockHeader TraceWriter::packBlock() {
    stored.resize(ZSTD_compressBound(open.size()));
    const std::size_t length = ZSTD_compressCCtx(compressor.get(), stored.data(), stored.size(),
                                                 open.data(), open.size(), kLevel);
    if (ZSTD_isError(length) != 0) {
        throw std::runtime_error(name + ": " + ZSTD_getErrorName(length));
    }
    fileLayout::BlockHeader header{};
    header.magic = fileLayout::kBlockMagic;
    header.records = records;
    header.number = blocks++;
    header.time_us = blockTime;
    header.length = static_cast<std::uint32_t>(open.size());
    header.stored = static_cast<std::uint32_t>(length);
    header.storedChecksum = checksum(stored.data(), length);
    seal(header);
    records = 0;
    open.clear();
    return header;
}

void TraceWriter::writeAt(const void* bytes, std::size_t count, std::uint64_t offset) {
    const auto* from = static_cast<const char*>(bytes);
    while (count > 0) {
        const ssize_t written = pwrite(file, from, count, static_cast<off_t>(offset));
        if (written == -1 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "cannot write " + name);
        }
        const auto done = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        from += done;
        count -= done;
        offset += done;
    }
}

}  // namespace cardtrace
