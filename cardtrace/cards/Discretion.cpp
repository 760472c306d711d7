#include "cards/Discretion.h"

#include <algorithm>
#include <cstring>

#include "format/Checksum.h"

namespace cardtrace {

namespace {

void leaveOut(std::string& data, const Span& span) {
    char* const begin = &data[span.offset];
    const LeftOut note = {static_cast<std::uint16_t>(span.offset),
                          static_cast<std::uint16_t>(span.length), checksum(begin, span.length)};
    std::fill_n(begin, span.length, '\0');
    data.append(reinterpret_cast<const char*>(&note), sizeof(note));
}

void mask(std::string& data, const Span& span, bool hasCount) {
    const std::size_t kept = hasCount ? 1 : 0;
    std::fill_n(&data[span.offset + kept], span.length - kept, '*');
}

}  // namespace

void Discretion::apply(Record& record) {
    kinds.see(record);
    if (record.kind != Kind::kBuffers) {
        return;
    }
    const cardsim::CardKind* const kind = kinds.kind(record.port);
    if (withoutNumbers) {
        for (const Span& span : numbersOf(kind)) {
            mask(record.data, span, kind != nullptr);
        }
        record.flags = static_cast<std::uint16_t>(record.flags | Record::kWithoutNumbers);
    }
    if (withoutAudio) {
        for (const Span& span : audioOf(kind)) {
            leaveOut(record.data, span);
        }
        record.flags = static_cast<std::uint16_t>(record.flags | Record::kWithoutAudio);
    }
}

}  // namespace cardtrace
