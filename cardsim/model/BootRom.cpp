#include "model/BootRom.h"

#include <numeric>

namespace cardsim {

namespace {

constexpr std::uint16_t kKeyword8Bit = 0x08AA;
constexpr std::uint16_t kLastPage = 0x7F;
constexpr std::uint32_t kWordsOfPage = 0x10000;

}  // namespace

void BootRom::restart() {
    *this = BootRom();
}

void BootRom::take(std::uint8_t byte) {
    if (state != State::kLoading) {
        return;
    }
    if (highByte < 0) {
        highByte = byte;
        return;
    }
    const auto word = static_cast<std::uint16_t>(highByte << 8 | byte);
    highByte = -1;
    takeWord(word);
}

void BootRom::takeWord(std::uint16_t word) {
    switch (expects) {
        case Expects::kKeyword:
            if (word != kKeyword8Bit) {
                giveUp();
            }
            expects = Expects::kWaitStates;
            break;
        case Expects::kWaitStates:
            expects = Expects::kBankSwitching;
            break;
        case Expects::kBankSwitching:
            expects = Expects::kEntryPage;
            break;
        case Expects::kEntryPage:
            if (word > kLastPage) {
                giveUp();
            }
            expects = Expects::kEntry;
            break;
        case Expects::kEntry:
            entry = word;
            expects = Expects::kSize;
            break;
        case Expects::kSize:
            size = word;
            expects = Expects::kPage;
            if (size == 0) {
                state = State::kDone;
            }
            break;
        case Expects::kPage:
            page = word;
            if (page > kLastPage) {
                giveUp();
            }
            expects = Expects::kAddress;
            break;
        case Expects::kAddress:
            beginBlock(word);
            break;
        case Expects::kWords:
            blocks.back().words.push_back(word);
            if (blocks.back().words.size() == size) {
                expects = Expects::kSize;
            }
            break;
    }
}

void BootRom::beginBlock(std::uint16_t address) {
    if (std::uint32_t{address} + size > kWordsOfPage) {
        giveUp();
        return;
    }
    blocks.push_back({page, address, {}});
    expects = Expects::kWords;
}

std::uint16_t checksumOf(const std::vector<std::uint16_t>& words) {
    return static_cast<std::uint16_t>(std::accumulate(words.begin(), words.end(), 0u));
}

}  // namespace cardsim
