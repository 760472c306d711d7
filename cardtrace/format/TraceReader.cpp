#include "format/TraceReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "format/Checksum.h"

namespace cardtrace {

namespace {

constexpr std::size_t kMostComplaints = 20;

template <class Header>
bool isSealed(const Header& header) {
    return header.checksum == checksum(&header, offsetof(Header, checksum));
}

class FileSource : public Source {
  public:
    explicit FileSource(const std::string& path) : file(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        struct stat status {};
        if (file == -1 || fstat(file, &status) != 0) {
            throw NotATrace(path + ": " + std::strerror(errno));
        }
        if (!S_ISREG(status.st_mode)) {
            throw NotATrace(path + ": is no file");
        }
        length = static_cast<std::uint64_t>(status.st_size);
    }
    ~FileSource() override { close(file); }
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    std::uint64_t size() const override { return length; }
    std::size_t read(std::uint64_t offset, void* bytes, std::size_t count) const override {
        std::size_t done = 0;
        while (done < count) {
            const ssize_t got = pread(file, static_cast<char*>(bytes) + done, count - done,
                                      static_cast<off_t>(offset + done));
            if (got <= 0 && !(got == -1 && errno == EINTR)) {
                break;
            }
            done += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        }
        return done;
    }

  private:
    const int file;
    std::uint64_t length = 0;
};

template <class Header>
bool readInto(const Source& source, std::uint64_t offset, Header& header) {
    return source.read(offset, &header, sizeof(header)) == sizeof(header);
}

bool makesSense(const fileLayout::RecordHeader& record) {
    const auto kind = static_cast<Kind>(record.kind);
    if (record.kind == 0 || record.kind > kLastKind) {
        return false;
    }
    if (kind == Kind::kBuffers) {
        return record.dataLength >= kCardMemoryBytes && record.port <= 1;
    }
    return kind > Kind::kDeviceOut || record.width == 1 || record.width == 2 || record.width == 4;
}

// Where the magic number of a block comes next; end when nowhere.
std::uint64_t findMagic(const Source& source, std::uint64_t offset, std::uint64_t end) {
    char magic[sizeof(fileLayout::kBlockMagic)];
    std::memcpy(magic, &fileLayout::kBlockMagic, sizeof(magic));
    std::string chunk;
    std::size_t length = 256;  // mostly it is right here
    for (; offset + sizeof(magic) <= end; length = std::min(4 * length, fileLayout::kBlockBytes)) {
        chunk.resize(length);
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), end - offset));
        const std::size_t got = source.read(offset, chunk.data(), wanted);
        const std::size_t found =
            std::string_view(chunk.data(), got).find(std::string_view(magic, sizeof(magic)));
        if (found != std::string_view::npos) {
            return offset + found;
        }
        if (got < sizeof(magic)) {
            break;
        }
        offset += got - sizeof(magic) + 1;
    }
    return end;
}

}  // namespace

TraceReader::TraceReader(const std::string& path)
    : TraceReader(path, std::make_unique<FileSource>(path)) {}

TraceReader::TraceReader(const std::string& fileName, std::unique_ptr<const Source> bytes)
    : name(fileName), source(std::move(bytes)), decompressor(ZSTD_createDCtx(), ZSTD_freeDCtx) {
    readHeader();
    findSeam();
}

void TraceReader::readHeader() {
    fileLayout::FileHeader header{};
    if (!readInto(*source, 0, header) ||
        std::memcmp(header.magic, fileLayout::kMagic, sizeof(header.magic)) != 0) {
        throw NotATrace(name + ": is no trace");
    }
    if (header.version > fileLayout::kVersion) {
        throw NotATrace(name + ": is of version " + std::to_string(header.version) +
                        "; this program knows up to " + std::to_string(fileLayout::kVersion));
    }
    firstBlock = sizeof(header);
    if (!isSealed(header) || header.aboutLength > fileLayout::kMaxAbout) {
        complain(0, "the header is damaged");
        return;
    }
    aboutText.resize(header.aboutLength);
    firstBlock += header.aboutLength;
    if (source->read(sizeof(header), aboutText.data(), aboutText.size()) != aboutText.size() ||
        checksum(aboutText.data(), aboutText.size()) != header.aboutChecksum) {
        aboutText.clear();
        complain(sizeof(header), "what the trace is of is damaged");
    }
}

// In a file of bounded length the newest blocks may stand before the oldest.
void TraceReader::findSeam() {
    fileLayout::BlockHeader header{};
    std::uint64_t last = 0;
    std::uint64_t blocks = 0;
    seam = firstBlock;
    for (std::uint64_t offset = firstBlock; findBlock(offset, source->size(), header, false);
         offset += sizeof(header) + header.stored) {
        if (blocks++ != 0 && header.number < last) {
            seam = offset;
            break;
        }
        last = header.number;
    }
    position = seam;
    isBehindSeam = true;
}

// The next block from offset on, which becomes its place; tells what has to be skipped.
bool TraceReader::findBlock(std::uint64_t& offset, std::uint64_t end,
                            fileLayout::BlockHeader& header, bool tells) {
    const std::uint64_t begin = offset;
    while (offset < end) {
        const std::uint64_t found = findMagic(*source, offset, end);
        const bool isThere = found < end && readInto(*source, found, header);
        if (isThere && isSealed(header) && header.length <= fileLayout::kMaxBlockBytes &&
            header.stored <= ZSTD_compressBound(fileLayout::kMaxBlockBytes)) {
            if (tells && found != begin && !(begin == firstBlock && seam != firstBlock)) {
                complain(begin, std::to_string(found - begin) + " bytes are damaged");
            }
            offset = found;
            return true;
        }
        if (!isThere) {
            // Where a bounded file goes round, a rest of an older block may stand.
            if (tells && begin != end && !(seam != firstBlock && end == seam)) {
                complain(begin, std::to_string(end - begin) +
                                    (found < end ? " bytes: a block is cut off"
                                                 : " bytes are damaged or cut off"));
            }
            offset = end;
            return false;
        }
        offset = found + 1;
    }
    return false;
}

bool TraceReader::openNextBlock() {
    fileLayout::BlockHeader header{};
    while (!isDone) {
        const std::uint64_t end = isBehindSeam ? source->size() : seam;
        std::uint64_t offset = position;
        if (!findBlock(offset, end, header, true)) {
            isDone = !isBehindSeam || seam == firstBlock;
            isBehindSeam = false;
            position = firstBlock;
            continue;
        }
        position = offset + sizeof(header);
        if (hasBlock && header.number < nextNumber) {
            complain(offset, "block " + std::to_string(header.number) + " comes a second time");
            position += header.stored;
            continue;
        }
        position += header.stored;
        if (header.number != nextNumber) {
            if (hasBlock) {
                complain(offset, std::to_string(header.number - nextNumber) +
                                     " blocks are missing before block " +
                                     std::to_string(header.number));
            }
            gap = true;
        }
        hasBlock = true;
        nextNumber = header.number + 1;
        if (unpack(header, offset)) {
            return true;
        }
        gap = true;
    }
    finish();
    return false;
}

bool TraceReader::unpack(const fileLayout::BlockHeader& header, std::uint64_t offset) {
    stored.resize(header.stored);
    if (source->read(offset + sizeof(header), stored.data(), stored.size()) != stored.size()) {
        complain(offset, "block " + std::to_string(header.number) + " is cut off");
        return false;
    }
    if (checksum(stored.data(), stored.size()) != header.storedChecksum) {
        complain(offset, "block " + std::to_string(header.number) + " is damaged");
        return false;
    }
    open.resize(header.length);
    const std::size_t length = ZSTD_decompressDCtx(decompressor.get(), open.data(), open.size(),
                                                   stored.data(), stored.size());
    if (ZSTD_isError(length) != 0 || length != open.size()) {
        complain(offset, "block " + std::to_string(header.number) + " does not unpack");
        return false;
    }
    blockOffset = offset;
    place = 0;
    recordsLeft = header.records;
    time_us = header.time_us;
    return true;
}

bool TraceReader::next(Record& record) {
    while (true) {
        fileLayout::RecordHeader header{};
        if (recordsLeft == 0) {
            if (isDone || !openNextBlock()) {
                return false;
            }
            continue;
        }
        if (open.size() - place < sizeof(header)) {
            complain(blockOffset, "a record is cut off");
            recordsLeft = 0;
            gap = true;
            continue;
        }
        std::memcpy(&header, open.data() + place, sizeof(header));
        place += sizeof(header);
        if (open.size() - place < header.dataLength) {
            complain(blockOffset, "a record is longer than its block");
            recordsLeft = 0;
            gap = true;
            continue;
        }
        --recordsLeft;
        time_us += header.passed_us;
        record.data.assign(open, place, header.dataLength);
        place += header.dataLength;
        if (!makesSense(header)) {
            complain(blockOffset,
                     "a record of kind " + std::to_string(header.kind) + " makes no sense");
            gap = true;
            continue;
        }
        record.kind = static_cast<Kind>(header.kind);
        record.width = header.width;
        record.port = header.port;
        record.value = header.value;
        record.thread = header.thread;
        record.flags = header.flags;
        record.time_us = time_us;
        gapBefore = std::exchange(gap, false);
        sawEnd = record.kind == Kind::kEnd;
        return true;
    }
}

void TraceReader::complain(std::uint64_t offset, const std::string& reason) {
    if (complaints.size() < kMostComplaints) {
        complaints.push_back("byte " + std::to_string(offset) + ": " + reason);
    } else {
        ++moreComplaints;
    }
}

void TraceReader::finish() {
    if (moreComplaints != 0) {
        complaints.push_back("and " + std::to_string(moreComplaints) + " more");
        moreComplaints = 0;
    }
}

}  // namespace cardtrace
