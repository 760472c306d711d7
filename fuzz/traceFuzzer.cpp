// A trace that may have come from anywhere: read to its end, told in words and compared with
// simulated cards. Input: the letter r and records, or any other byte and a whole file. What is
// read must lie inside of it.
#include <zlib.h>
#include <zstd.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "Fuzzing.h"
#include "compare/Comparison.h"
#include "format/TraceReader.h"
#include "show/Story.h"
#include "show/Summary.h"

namespace {

using namespace cardtrace;

class Bytes : public Source {
  public:
    Bytes(const std::uint8_t* first, std::size_t count) : bytes(first), length(count) {}
    std::uint64_t size() const override { return length; }
    std::size_t read(std::uint64_t offset, void* to, std::size_t count) const override {
        const std::size_t there = offset < length ? length - offset : 0;
        std::memcpy(to, bytes + length - there, std::min(count, there));
        return std::min(count, there);
    }

  private:
    const std::uint8_t* const bytes;
    const std::size_t length;
};

std::uint32_t checksum(const void* from, std::size_t count) {
    return static_cast<std::uint32_t>(
        crc32(0, static_cast<const Bytef*>(from), static_cast<uInt>(count)));
}

// A file with one block of these records: mutations get past its checksums by this way only.
std::string fileOf(const std::string& records) {
    fileLayout::FileHeader header{};
    std::memcpy(header.magic, fileLayout::kMagic, sizeof(header.magic));
    header.version = fileLayout::kVersion;
    header.checksum = checksum(&header, offsetof(fileLayout::FileHeader, checksum));
    std::string stored(ZSTD_compressBound(records.size()), '\0');
    stored.resize(ZSTD_compress(stored.data(), stored.size(), records.data(), records.size(), 1));
    fileLayout::BlockHeader block{};
    block.magic = fileLayout::kBlockMagic;
    block.records = 1000;
    block.length = static_cast<std::uint32_t>(records.size());
    block.stored = static_cast<std::uint32_t>(stored.size());
    block.storedChecksum = checksum(stored.data(), stored.size());
    block.checksum = checksum(&block, offsetof(fileLayout::BlockHeader, checksum));
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) +
           std::string(reinterpret_cast<const char*>(&block), sizeof(block)) + stored;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string rest(reinterpret_cast<const char*>(bytes) + (size == 0 ? 0 : 1),
                           size == 0 ? 0 : size - 1);
    const std::string file = size != 0 && bytes[0] == 'r' ? fileOf(rest) : rest;
    const auto open = [&file] {
        return TraceReader(
            "fuzz", std::make_unique<Bytes>(reinterpret_cast<const std::uint8_t*>(file.data()),
                                            file.size()));
    };
    try {
        for (const bool all : {false, true}) {
            TraceReader reader = open();
            Story::Options options;
            options.all = all;
            std::uint64_t length = 0;
            Story story(options, [&length](const Line& line) { length += textOf(line).size(); });
            for (Record record; reader.next(record);) {
                story.tell(record);
            }
            story.end();
            summaryText(reader.about(), story.facts());
            summaryJson(reader.about(), story.facts());
            require(reader.troubles().size() <= 21, "complaints are bounded");
        }
        Comparison::Options cards;
        cards.channels[0] = 4;
        cards.channels[1] = 8;
        TraceReader ofReal = open();
        Comparison(ofReal, cards).run();
        cards.configuration.emplace();
        cards.configuration->pc.channels[1] = 8;
        cards.configuration->traffic = true;
        TraceReader ofSimulated = open();
        Comparison(ofSimulated, cards).run();
    } catch (const NotATrace&) {
        return 0;
    }
    return 0;
}
