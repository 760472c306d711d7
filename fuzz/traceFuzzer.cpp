// A trace that may have come from anywhere: read to its end, told in words and compared with
// simulated cards. Input: the letter r and records, the letter a and what the trace is of, a line
// end and records, or any other byte and a whole file. What is read must lie inside of it.
#include <zstd.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "Fuzzing.h"
#include "compare/Comparison.h"
#include "format/Checksum.h"
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

// A file with one block of these records: mutations get past its checksums by this way only.
std::string fileOf(const std::string& records, const std::string& about = "") {
    fileLayout::FileHeader header{};
    std::memcpy(header.magic, fileLayout::kMagic, sizeof(header.magic));
    header.version = fileLayout::kVersion;
    header.aboutLength = static_cast<std::uint32_t>(about.size());
    header.aboutChecksum = checksum(about.data(), about.size());
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
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + about +
           std::string(reinterpret_cast<const char*>(&block), sizeof(block)) + stored;
}

// As the trace says it, or any that makes sense.
cardsim::Configuration configurationOf(const std::string& about) {
    std::optional<cardsim::Configuration> told;
    try {
        told = configurationIn(about);
    } catch (const std::exception&) {
        told.reset();
    }
    if (!told) {
        told.emplace();
        told->pc.channels[1] = 8;
        told->traffic = true;
    }
    return *told;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string rest(reinterpret_cast<const char*>(bytes) + (size == 0 ? 0 : 1),
                           size == 0 ? 0 : size - 1);
    const std::size_t line = std::min(rest.find('\n'), rest.size());
    const bool hasAbout = size != 0 && bytes[0] == 'a';
    const std::string file =
        hasAbout ? fileOf(rest.substr(std::min(line + 1, rest.size())), rest.substr(0, line))
        : size != 0 && bytes[0] == 'r' ? fileOf(rest)
                                       : rest;
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
        TraceReader ofSimulated = open();
        cards.configuration = configurationOf(ofSimulated.about());
        Comparison(ofSimulated, cards).run();
    } catch (const NotATrace&) {
        return 0;
    }
    return 0;
}
