#include "cards/Silence.h"

#include <cstring>

#include "format/Checksum.h"

namespace cardtrace {

namespace {

constexpr std::uint16_t kSilence[] = {0xBB55, 0x76DB, 0x40A0, 0x00FA, 0xC200,
                                      0x07D6, 0x0280, 0x03EB, 0x0800, 0x1F58};

std::string silence(std::size_t words) {
    std::string bytes;
    for (std::size_t i = 0; i < words; ++i) {
        const std::uint16_t word = kSilence[i % std::size(kSilence)];
        bytes += static_cast<char>(word & 0xFF);
        bytes += static_cast<char>(word >> 8);
    }
    return bytes;
}

// Of what stands in the buffers at that place, or stood there.
std::uint32_t checksumAt(const Record& buffers, std::size_t offset, std::size_t length) {
    for (std::size_t at = kCardMemoryBytes; at + sizeof(LeftOut) <= buffers.data.size();
         at += sizeof(LeftOut)) {
        LeftOut left{};
        std::memcpy(&left, buffers.data.data() + at, sizeof(left));
        if (left.offset == offset && left.length == length) {
            return left.checksum;
        }
    }
    return checksum(&buffers.data[offset], length);
}

}  // namespace

Playback playbackOf(const Record& buffers, int buffer, const cardsim::CardKind& kind) {
    const auto words = static_cast<std::size_t>(kind.transfer.audioWords);
    const int word =
        (buffer == 0 ? 0 : cardsim::layout::kSecondBuffer) + kind.transfer.playbackAudio;
    const std::uint32_t there = checksumAt(buffers, static_cast<std::size_t>(2 * word), 2 * words);
    const std::string silent = silence(words), nothing(2 * words, '\0');
    if (there == checksum(silent.data(), silent.size())) {
        return Playback::kSilence;
    }
    return there == checksum(nothing.data(), nothing.size()) ? Playback::kNothing
                                                             : Playback::kAudio;
}

}  // namespace cardtrace
