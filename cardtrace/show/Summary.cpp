#include "show/Summary.h"

#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>

#include "format/About.h"
#include "show/Advice.h"

namespace cardtrace {

namespace {

using Json = nlohmann::ordered_json;

std::string seconds(std::uint64_t us) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.3f s", static_cast<double>(us) / 1e6);
    return text;
}

std::string hexadecimal(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%04X", value);
    return text;
}

std::string gapRange(std::size_t range) {
    return range + 1 == kNumGapRanges ? "above"
                                      : "to " + std::to_string(kGapEnds_ms[range]) + " ms";
}

std::string textAt(const Json& about, const char* name) {
    const auto found = about.find(name);
    return found != about.end() && found->is_string() ? found->get<std::string>() : "unknown";
}

std::string timeAt(const Json& about, const char* name) {
    const auto found = about.find(name);
    if (found == about.end() || !found->is_number_integer()) {
        return "an unknown time";
    }
    const auto time = static_cast<std::time_t>(found->get<std::int64_t>() / 1000);
    std::tm parts{};
    char text[64] = "an unknown time";
    if (gmtime_r(&time, &parts) != nullptr) {
        std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &parts);
    }
    return text;
}

void writeBoots(std::ostream& out, const CardFacts& card) {
    int number = 0;
    for (const BootFacts& boot : card.boots) {
        out << "  boot " << ++number << "     at " << seconds(boot.began_us) << ", " << boot.bytes
            << " bytes: ";
        if (boot.isWhole) {
            out << "whole after " << seconds(boot.ended_us - boot.began_us) << '\n';
        } else {
            out << "ended at " << boot.endedAt << '\n';
        }
        for (const BlockFacts& block : boot.blocks) {
            out << "             " << block.name << " to " << hexadecimal(block.address) << ": "
                << block.words << " words, checksum " << block.checksum << '\n';
        }
    }
    if (card.furtherBoots != 0) {
        out << "             and " << card.furtherBoots << " more boots\n";
    }
}

void writeLooks(std::ostream& out, const CardFacts& card) {
    out << "  looks      " << card.looks << "; " << card.lateLooks << " more than " << kLateGap_ms
        << " ms after the one before, the latest after " << seconds(card.longestGap_us) << "\n"
        << "             gaps";
    for (std::size_t range = 0; range < kNumGapRanges; ++range) {
        out << (range == 0 ? " " : ", ") << gapRange(range) << ": " << card.gaps[range];
    }
    out << '\n';
}

void writeCard(std::ostream& out, int number, const CardFacts& card) {
    out << "card " << number << ": "
        << (card.channels == 0 ? "of unknown kind" : std::to_string(card.channels) + " channels")
        << "\n  echoes     " << card.echoes << ", " << card.wrongEchoes << " wrong\n";
    writeBoots(out, card);
    out << "  time-outs  " << card.timeOuts << "\n  transfers  " << card.handOvers
        << " handed over, " << card.releases << " given back, " << card.missed << " missed, "
        << card.repeated << " repeated\n";
    if (card.handOvers != 0) {
        out << "             last handed over at " << seconds(card.lastHandOver_us) << '\n';
    }
    if (card.looksInVain != 0) {
        out << "             nothing from " << seconds(card.silentSince_us) << " on, at "
            << card.looksInVain << " looks\n";
    }
    if (card.missedAfterBoot != 0) {
        out << "             missed in the first seconds after a boot: " << card.missedAfterBoot
            << '\n';
    }
    writeLooks(out, card);
    out << "  settings   written " << card.settings << " times\n";
    for (const auto& [line, set] : card.lines) {
        out << "             line " << line << ": beep " << set.beep << ", trigger "
            << hexadecimal(set.trigger) << ", delay " << set.delay_ms << " ms\n";
    }
    out << "  played     audio " << card.audioPlayed << " times, silence " << card.silencePlayed
        << " times\n  calls      " << card.callers << " callers, " << card.digits << " digits\n";
}

Json bootsJson(const CardFacts& card) {
    Json boots = Json::array();
    for (const BootFacts& boot : card.boots) {
        Json blocks = Json::array();
        for (const BlockFacts& block : boot.blocks) {
            blocks.push_back({{"name", block.name},
                              {"address", block.address},
                              {"words", block.words},
                              {"checksum", block.checksum}});
        }
        boots.push_back({{"beganMicroseconds", boot.began_us},
                         {"endedMicroseconds", boot.ended_us},
                         {"bytes", boot.bytes},
                         {"whole", boot.isWhole},
                         {"endedAt", boot.endedAt},
                         {"blocks", blocks}});
    }
    return boots;
}

Json cardJson(int number, const CardFacts& card) {
    Json gaps = Json::array();
    for (std::size_t range = 0; range < kNumGapRanges; ++range) {
        gaps.push_back({{"upTo", range + 1 == kNumGapRanges ? Json() : Json(kGapEnds_ms[range])},
                        {"count", card.gaps[range]}});
    }
    Json lines = Json::array();
    for (const auto& [line, set] : card.lines) {
        lines.push_back({{"line", line},
                         {"beep", set.beep},
                         {"trigger", set.trigger},
                         {"delayMilliseconds", set.delay_ms}});
    }
    return {
        {"card", number},
        {"channels", card.channels},
        {"echoes", card.echoes},
        {"wrongEchoes", card.wrongEchoes},
        {"boots", bootsJson(card)},
        {"timeOuts", card.timeOuts},
        {"handedOver", card.handOvers},
        {"givenBack", card.releases},
        {"lastHandedOverMicroseconds", card.handOvers == 0 ? Json() : Json(card.lastHandOver_us)},
        {"looksInVain", card.looksInVain},
        {"silentSinceMicroseconds", card.looksInVain == 0 ? Json() : Json(card.silentSince_us)},
        {"missed", card.missed},
        {"missedAfterBoot", card.missedAfterBoot},
        {"repeated", card.repeated},
        {"looks", card.looks},
        {"lateLooks", card.lateLooks},
        {"longestGapMicroseconds", card.longestGap_us},
        {"gapsMilliseconds", gaps},
        {"settingsWritten", card.settings},
        {"lines", lines},
        {"audioPlayed", card.audioPlayed},
        {"silencePlayed", card.silencePlayed},
        {"callers", card.callers},
        {"digits", card.digits}};
}

}  // namespace

std::string summaryText(const std::string& about, const Facts& facts) {
    const Json told = readAbout<Json>(about);
    std::ostringstream out;
    out << "trace of " << textAt(told, "cards") << " cards by " << textAt(told, "recorder")
        << ", begun at " << timeAt(told, "began") << "\n"
        << facts.records << " records of " << seconds(facts.end_us) << ", "
        << (facts.hasEnd ? "to the end; exit status " + std::to_string(facts.exitStatus)
                         : "broken off")
        << '\n';
    for (int number = 0; number < 2; ++number) {
        if (facts.cards[number].isSeen) {
            writeCard(out, number, facts.cards[number]);
        }
    }
    for (const auto& [failure, times] : facts.failures) {
        out << "failed: " << failure << ", " << times << " times\n";
    }
    const std::vector<Advice> advice = adviceFor(facts);
    out << (advice.empty() ? "docs/troubleshooting.md has nothing to say about it\n"
                           : "what docs/troubleshooting.md has to say about it:\n");
    for (const Advice& each : advice) {
        out << "  " << (each.card == -1 ? "" : "card " + std::to_string(each.card) + ": ")
            << each.shown << "\n    see \"" << each.message << "\": " << each.cure << '\n';
    }
    return out.str();
}

std::string summaryJson(const std::string& about, const Facts& facts) {
    Json cards = Json::array();
    for (int number = 0; number < 2; ++number) {
        if (facts.cards[number].isSeen) {
            cards.push_back(cardJson(number, facts.cards[number]));
        }
    }
    Json advice = Json::array();
    for (const Advice& each : adviceFor(facts)) {
        advice.push_back({{"card", each.card == -1 ? Json() : Json(each.card)},
                          {"message", each.message},
                          {"shown", each.shown},
                          {"cure", each.cure}});
    }
    const Json whole = {{"about", readAbout<Json>(about)},
                        {"records", facts.records},
                        {"microseconds", facts.end_us},
                        {"whole", facts.hasEnd},
                        {"exitStatus", facts.hasEnd ? Json(facts.exitStatus) : Json()},
                        {"cards", cards},
                        {"failures", facts.failures},
                        {"advice", advice}};
    return whole.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace cardtrace
