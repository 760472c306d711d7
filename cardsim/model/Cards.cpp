#include "model/Cards.h"

#include <algorithm>

namespace cardsim {

namespace {

constexpr std::uint32_t maskOf(int bytes) {
    return bytes == 1 ? 0xFF : 0xFFFF;
}

constexpr std::uint16_t offsetOf(std::uint16_t port) {
    return static_cast<std::uint16_t>(port % portMap::kPortsOfCard & ~1u);
}

// Calls access(port, bytes, shift) for each register that an access touches: words at even ports.
template <class Access>
void splitAtRegisters(std::uint16_t port, int bytes, Access access) {
    for (int done = 0; done < bytes;) {
        const auto part = static_cast<std::uint16_t>(port + done);
        const int width = part % 2 != 0 || bytes - done == 1 ? 1 : 2;
        access(part, width, 8 * done);
        done += width;
    }
}

}  // namespace

Cards::Cards(const std::optional<CardOptions> (&slots)[portMap::kMaxCards],
             volatile std::uint16_t* memory, MachineReport& machineReport)
    : report(machineReport), elapsedBefore(machineReport.elapsed_us) {
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
    std::uint32_t value = 0;
    splitAtRegisters(port, bytes, [&](std::uint16_t part, int width, int shift) {
        Card* const card = cardAt(part);
        const std::uint32_t word =
            card == nullptr ? portMap::kNobody : card->in(offsetOf(part), now);
        value |= (word >> (part % 2 * 8) & maskOf(width)) << shift;
    });
    return value;
}

void Cards::out(std::uint16_t port, int bytes, std::uint32_t value, std::uint64_t now) {
    ++report.portAccesses;
    advance(now);
    splitAtRegisters(port, bytes, [&](std::uint16_t part, int width, int shift) {
        Card* const card = cardAt(part);
        if (card != nullptr && part % 2 == 0) {
            card->out(offsetOf(part), static_cast<std::uint16_t>(value >> shift & maskOf(width)),
                      now);
        }
    });
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
    const int slot = portMap::slotOf(port);
    return slot == -1 ? nullptr : cards[slot].get();
}

void Cards::advanceCards(std::uint64_t until) {
    report.elapsed_us = std::max(report.elapsed_us, elapsedBefore + until);
    for (const auto& card : cards) {
        if (card != nullptr) {
            card->advance(until);
        }
    }
}

}  // namespace cardsim
