// Writes a trace file, block by block: what has been written stays readable whatever becomes of the
// rest. One thread uses it.
#pragma once

#include <zstd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "format/Layout.h"
#include "format/Record.h"

namespace cardtrace {

class TraceWriter {
  public:
    // Makes the file anew. about: what the trace is of, a JSON text. mostBytes: how long the file
    // may become, then the oldest blocks make room for new ones; 0: as long as it will. Throws
    // std::system_error, std::invalid_argument when so few bytes hold nothing.
    TraceWriter(const std::string& path, const std::string& about, std::uint64_t mostBytes = 0);
    ~TraceWriter();
    TraceWriter(const TraceWriter&) = delete;
    TraceWriter& operator=(const TraceWriter&) = delete;

    // The least that mostBytes may be.
    static constexpr std::uint64_t kLeastBytes = 4 * fileLayout::kMaxBlockBytes;

    // Throws std::system_error when it cannot be written: then it is lost with all that came since
    // the last block, and a reader finds a gap there. The next try may succeed.
    void add(const Record& record);
    // All that was added is on the disk when this returns. Throws as add does.
    void sync();
    // Records are missing behind those that were added: a reader finds a gap there. Throws as add
    // does.
    void leaveGap();
    // Whether the last try to write has failed.
    bool isFailing() const { return fails; }

  private:
    void writeBlock();
    fileLayout::BlockHeader packBlock();
    void writeAt(const void* bytes, std::size_t count, std::uint64_t offset);

    const std::string name;
    const int file;
    const std::uint64_t limit;
    std::uint64_t firstBlock = 0;
    std::uint64_t position = 0;
    std::uint64_t blocks = 0;
    std::uint64_t blockTime = 0;
    std::uint64_t lastTime = 0;
    std::uint32_t records = 0;
    bool fails = false;
    std::string open;  // records of the block that is still to be written
    std::string stored;
    const std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> compressor;
};

}  // namespace cardtrace
