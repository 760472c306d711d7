#include "cards/CardMemory.h"

#include <algorithm>

#include "model/PortMap.h"

namespace cardtrace {

namespace {

using cardsim::CardKind;
namespace layout = cardsim::layout;
namespace portMap = cardsim::portMap;

std::size_t bytesAt(int words) {
    return static_cast<std::size_t>(2 * words);
}

// Calls add(first word of the buffer, first word of the port) for each line of both buffers.
template <class Add>
void eachPort(const CardKind& kind, Add add) {
    for (const int buffer : {0, layout::kSecondBuffer}) {
        for (int line = 0; line < kind.channels; ++line) {
            add(buffer + kind.transfer.firstPort + line * kind.transfer.portWords);
        }
    }
}

}  // namespace

void KindsSeen::see(const Record& record) {
    const int slot = portMap::slotOf(record.port);
    const bool isStatus = record.isRead() && !record.failed() && !record.isUnanswered() &&
                          slot != -1 && record.port % portMap::kPortsOfCard == portMap::kControl;
    const std::uint32_t nobody = record.width == 1 ? 0xFF : 0xFFFF;
    if (!isStatus || record.value == nobody) {
        return;
    }
    for (const CardKind& kind : cardsim::kCardKinds) {
        constexpr std::uint16_t kBitsOfKind = 0x04;
        if ((record.value & kBitsOfKind) == (kind.status & kBitsOfKind)) {
            kinds[slot] = &kind;
        }
    }
}

bool isSilence(const CardKind& kind, std::uint64_t passed_us, std::uint64_t looks) {
    constexpr std::uint64_t kPeriods = 10;
    constexpr std::uint64_t kFewLooks = 20;
    return passed_us >= kPeriods * kind.period_us && looks > kFewLooks;
}

BufferView::BufferView(const Record& buffers, int buffer, const CardKind& cardKind)
    : memory(buffers.data),
      begin(buffer == 0 ? 0 : bytesAt(layout::kSecondBuffer)),
      kind(cardKind) {}

std::uint16_t BufferView::word(int place) const {
    const std::size_t at = begin + bytesAt(place);
    const auto byte = [this](std::size_t offset) {
        return static_cast<unsigned char>(memory[offset]);
    };
    return static_cast<std::uint16_t>(byte(at) | byte(at + 1) << 8);
}

std::uint32_t BufferView::counter() const {
    return word(layout::kCounter) | std::uint32_t{word(layout::kCounter + 1)} << 16;
}

bool BufferView::hasSettings() const {
    return word(kind.transfer.command) == layout::kApplySettings;
}

std::uint16_t BufferView::setting(int line, int entry) const {
    return word(kind.transfer.command + layout::kSettings + 3 * line + entry);
}

std::uint16_t BufferView::portWord(int line, int place) const {
    return word(kind.transfer.firstPort + line * kind.transfer.portWords + place);
}

std::string BufferView::digits(int line) const {
    return text(kind.transfer.firstPort + line * kind.transfer.portWords + kind.transfer.digits,
                kind.transfer.digitsBytes);
}

std::string BufferView::caller(int line) const {
    return text(kind.transfer.firstPort + line * kind.transfer.portWords + kind.transfer.caller,
                layout::kCallerBytes);
}

// A count in one byte, and so many characters.
std::string BufferView::text(int place, int mostBytes) const {
    const std::size_t at = begin + bytesAt(place);
    const auto count = static_cast<signed char>(memory[at]);
    const int length = std::clamp<int>(count, 0, mostBytes - 1);
    return memory.substr(at + 1, static_cast<std::size_t>(length));
}

std::string printable(std::string text) {
    const auto isPlain = [](unsigned char byte) { return byte >= 0x20 && byte < 0x7F; };
    for (char& each : text) {
        each = isPlain(static_cast<unsigned char>(each)) ? each : '?';
    }
    return text;
}

std::vector<Span> audioOf(const CardKind* kind) {
    if (kind == nullptr) {
        return {{0, kCardMemoryBytes}};
    }
    std::vector<Span> spans;
    const std::size_t length = bytesAt(kind->transfer.audioWords);
    eachPort(*kind, [&](int port) {
        spans.push_back({bytesAt(port + kind->transfer.audio), length});
    });
    for (const int buffer : {0, layout::kSecondBuffer}) {
        spans.push_back({bytesAt(buffer + kind->transfer.playbackAudio), length});
    }
    return spans;
}

std::vector<Span> numbersOf(const CardKind* kind) {
    if (kind == nullptr) {
        return {{0, kCardMemoryBytes}};
    }
    std::vector<Span> spans;
    eachPort(*kind, [&](int port) {
        spans.push_back({bytesAt(port + kind->transfer.digits),
                         static_cast<std::size_t>(kind->transfer.digitsBytes)});
        spans.push_back({bytesAt(port + kind->transfer.caller), layout::kCallerBytes});
    });
    return spans;
}

}  // namespace cardtrace
