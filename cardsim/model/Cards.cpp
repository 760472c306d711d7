#include "model/Cards.h"

#include <algorithm>

namespace cardsim {

Cards::Cards(const std::optional<CardOptions> (&slots)[portMap::kMaxCards],
             volatile std::uint16_t* memory, MachineReport& machineReport)
    : report(machineReport) {
    report = {};
    for (int slot = 0; slot < portMap::kMaxCards; ++slot) {
        if (slots[slot]) {
            cards[slot] = std::make_unique<Card>(slot, *slots[slot],
                                                 memory + slot * layout::kCardWords, report);
        }
    }
}

std::uint32_t Cards::in(std::uint16_t port, int bytes, std::uint64_t now) {
    ++report.portAccesses;
    advance(now);
    Card* const card = cardAt(port);
    if (card == nullptr) {
        return ~0u;
    }
    const auto offset = static_cast<std::uint16_t>(port % portMap::kPortsOfCard);
    const auto even = static_cast<std::uint16_t>(offset & ~1u);
    std::uint32_t value = card->in(even, now) >> (8 * (offset - even));
    if (bytes == 4) {
        value |= std::uint32_t{card->in(static_cast<std::uint16_t>(even + 2), now)} << 16;
    }
    return value;
}

void Cards::out(std::uint16_t port, int bytes, std::uint32_t value, std::uint64_t now) {
    ++report.portAccesses;
    advance(now);
    Card* const card = cardAt(port);
    if (card == nullptr) {
        return;
    }
    const auto offset = static_cast<std::uint16_t>(port % portMap::kPortsOfCard & ~1u);
    card->out(offset, static_cast<std::uint16_t>(value & (bytes == 1 ? 0xFF : 0xFFFF)), now);
    if (bytes == 4) {
        card->out(static_cast<std::uint16_t>(offset + 2), static_cast<std::uint16_t>(value >> 16),
                  now);
    }
}

void Cards::advance(std::uint64_t until) {
    while (!plan.empty() && plan.begin()->first <= until) {
        const auto due = plan.extract(plan.begin());
        advanceCards(due.key() - std::min<std::uint64_t>(due.key(), 1));
        due.mapped()();
    }
    advanceCards(until);
}

void Cards::at(std::uint64_t time, std::function<void()> action) {
    plan.emplace(time, std::move(action));
}

int Cards::lines() const {
    int count = 0;
    for (const auto& card : cards) {
        count += card == nullptr ? 0 : card->channels();
    }
    return count;
}

Line& Cards::line(int number) {
    const int inFirst = cards[0] == nullptr ? 0 : cards[0]->channels();
    return number < inFirst ? cards[0]->line(number) : cards[1]->line(number - inFirst);
}

Card* Cards::cardAt(std::uint16_t port) const {
    const int slot = (port - portMap::kFirstBase) / portMap::kPortsOfCard;
    const bool inRange = port >= portMap::kFirstBase && slot < portMap::kMaxCards;
    return inRange ? cards[slot].get() : nullptr;
}

void Cards::advanceCards(std::uint64_t until) {
    report.elapsed_us = std::max(report.elapsed_us, until);
    for (const auto& card : cards) {
        if (card != nullptr) {
            card->advance(until);
        }
    }
}

}  // namespace cardsim
