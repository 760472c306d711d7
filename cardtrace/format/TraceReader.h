// Reads a trace file, whatever has become of it: what is cut off or damaged is left out and told.
// Memory is bounded, whatever the file holds. One thread uses it.
#pragma once

#include <zstd.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "format/Layout.h"
#include "format/Record.h"

namespace cardtrace {

// It cannot be opened, is no trace, or none of a version that is known; "NAME: reason".
struct NotATrace : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Where the bytes come from.
class Source {
  public:
    virtual ~Source() = default;
    virtual std::uint64_t size() const = 0;
    // Fewer than count at the end, or when they cannot be read.
    virtual std::size_t read(std::uint64_t offset, void* bytes, std::size_t count) const = 0;
};

class TraceReader {
  public:
    // Throws NotATrace.
    explicit TraceReader(const std::string& path);
    TraceReader(const std::string& name, std::unique_ptr<const Source> source);

    // What the trace is of: the JSON text that the writer was given.
    const std::string& about() const { return aboutText; }
    // The next record in the order of the recording; false at the end.
    bool next(Record& record);
    // Whether something is missing right before the record that next gave last.
    bool isAfterGap() const { return gapBefore; }
    // What could not be read, "byte N: reason", and what is missing; the first ones, and how many
    // more. Complete once next has answered false.
    const std::vector<std::string>& troubles() const { return complaints; }
    // The recording was ended in good order; known once next has answered false.
    bool hasEnd() const { return sawEnd; }

  private:
    void readHeader();
    void findSeam();
    bool findBlock(std::uint64_t& offset, std::uint64_t end, fileLayout::BlockHeader& header,
                   bool tells);
    bool openNextBlock();
    bool unpack(const fileLayout::BlockHeader& header, std::uint64_t offset);
    void complain(std::uint64_t offset, const std::string& reason);
    void finish();

    const std::string name;
    const std::unique_ptr<const Source> source;
    const std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> decompressor;
    std::string aboutText;
    std::uint64_t firstBlock = 0;
    std::uint64_t seam = 0;  // where the oldest block begins, when the file goes round
    std::uint64_t position = 0;
    bool isBehindSeam = true;
    bool isDone = false;

    std::string stored, open;
    std::size_t place = 0;  // in the open block
    std::uint64_t blockOffset = 0;
    std::uint64_t nextNumber = 0;
    bool hasBlock = false;
    std::uint32_t recordsLeft = 0;
    std::uint64_t time_us = 0;
    bool gap = false, gapBefore = false;
    bool sawEnd = false;
    std::vector<std::string> complaints;
    std::uint64_t moreComplaints = 0;
};

}  // namespace cardtrace
