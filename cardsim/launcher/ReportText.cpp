#include "launcher/ReportText.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

namespace cardsim {

namespace {

using Json = nlohmann::ordered_json;

int blocksShown(const CardReport& card) {
    return std::min(static_cast<int>(card.imageBlocks), CardReport::kMaxBlocks);
}

std::string hexadecimal(std::uint64_t number, int digits) {
    std::ostringstream text;
    text << "0x" << std::hex << std::uppercase << std::setfill('0') << std::setw(digits) << number;
    return text.str();
}

void writeCard(std::ostream& out, int slot, const CardReport& card) {
    out << "  card " << slot << ": " << card.channels << " channels, booted " << card.boots
        << (card.boots == 1 ? " time\n" : " times\n");
    out << "    image      " << card.imageWords << " words in " << card.imageBlocks
        << " blocks, checksum " << card.imageChecksum << "\n";
    for (int i = 0; i < blocksShown(card); ++i) {
        const BlockReport& block = card.blocks[i];
        out << "               at " << hexadecimal(block.address, 4) << ": " << block.words
            << " words, checksum " << block.checksum << "\n";
    }
    out << "    buffers    " << card.handOvers << " handed over, " << card.served << " served, "
        << card.missed << " missed\n";
    out << "    settings   applied by line:";
    for (std::uint32_t line = 0; line < card.channels; ++line) {
        out << " " << card.commands[line];
    }
    out << "\n    calls      " << card.calls << "\n";
    out << "    played     " << card.bytesPlayed << " bytes\n";
    out << "    faults     " << card.faults << "\n";
}

Json cardJson(int slot, const CardReport& card) {
    Json blocks = Json::array();
    for (int i = 0; i < blocksShown(card); ++i) {
        const BlockReport& block = card.blocks[i];
        blocks.push_back(
            {{"address", block.address}, {"words", block.words}, {"checksum", block.checksum}});
    }
    return {{"card", slot},
            {"channels", card.channels},
            {"boots", card.boots},
            {"image",
             {{"words", card.imageWords}, {"checksum", card.imageChecksum}, {"blocks", blocks}}},
            {"handedOver", card.handOvers},
            {"served", card.served},
            {"missed", card.missed},
            {"settingsApplied",
             std::vector<std::uint64_t>(card.commands, card.commands + card.channels)},
            {"calls", card.calls},
            {"bytesPlayed", card.bytesPlayed},
            {"faults", card.faults}};
}

}  // namespace

std::string reportText(const MachineReport& report, std::uint64_t strangerAccesses) {
    std::ostringstream out;
    out << "cardsim: report of the cards\n";
    for (int slot = 0; slot < portMap::kMaxCards; ++slot) {
        if (report.cards[slot].channels != 0) {
            writeCard(out, slot, report.cards[slot]);
        }
    }
    char time[64];
    std::snprintf(time, sizeof(time), "%.3f s", static_cast<double>(report.elapsed_us) / 1e6);
    out << "  " << report.portAccesses << " port accesses in " << time << "; timeline "
        << hexadecimal(report.timeline, 16) << "\n";
    if (strangerAccesses != 0) {
        out << "  " << strangerAccesses
            << " port accesses by processes that had not the cards reached nobody\n";
    }
    return out.str();
}

std::string reportJson(const MachineReport& report, std::uint64_t strangerAccesses,
                       std::uint64_t seed) {
    Json cards = Json::array();
    for (int slot = 0; slot < portMap::kMaxCards; ++slot) {
        if (report.cards[slot].channels != 0) {
            cards.push_back(cardJson(slot, report.cards[slot]));
        }
    }
    const Json whole = {{"seed", seed},
                        {"cards", cards},
                        {"portAccesses", report.portAccesses},
                        {"strangerAccesses", strangerAccesses},
                        {"elapsedMicroseconds", report.elapsed_us},
                        {"timeline", hexadecimal(report.timeline, 16)}};
    return whole.dump(2) + "\n";
}

}  // namespace cardsim
