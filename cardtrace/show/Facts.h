// What a trace tells as a whole, card by card: for the summary. Lists are bounded, counts are not.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace cardtrace {

struct BlockFacts {
    std::string name;  // of the file, or "block N"
    std::uint16_t address;
    std::uint16_t words;
    std::uint16_t checksum;
};

struct BootFacts {
    static constexpr std::size_t kMostBlocks = 64;
    std::uint64_t began_us = 0;
    std::uint64_t ended_us = 0;
    std::uint64_t bytes = 0;
    std::vector<BlockFacts> blocks;
    bool isWhole = false;
    std::string endedAt;  // where it stopped, when it is not whole
};

struct LineFacts {
    std::uint16_t beep = 0, trigger = 0, delay_ms = 0;
};

// Upper ends of the ranges of the gaps between two looks at a card; above the last: the rest.
constexpr unsigned kGapEnds_ms[] = {50, 90, 110, 150, 250, 350, 450, 1000};
constexpr std::size_t kNumGapRanges = sizeof(kGapEnds_ms) / sizeof(kGapEnds_ms[0]) + 1;
constexpr unsigned kLateGap_ms = 250;

struct CardFacts {
    static constexpr std::size_t kMostBoots = 100;
    bool isSeen = false;
    int channels = 0;
    std::uint64_t echoes = 0, wrongEchoes = 0;
    bool nobodyAnswers = false;  // the wrong echoes are all ones
    std::vector<BootFacts> boots;
    std::uint64_t furtherBoots = 0;
    std::uint64_t timeOuts = 0;
    bool timeOutInHeader = false;
    std::uint64_t handOvers = 0, releases = 0;
    std::uint64_t lastHandOver_us = 0;
    std::uint64_t missed = 0;           // transfers, by the counter
    std::uint64_t missedAfterBoot = 0;  // of them, in the first seconds of the firmware
    std::uint64_t repeated = 0;         // hand-overs with the counter of the one before
    std::uint64_t notHandedOver = 0;    // releases of buffers whose bit was gone
    std::uint64_t looks = 0;
    // The longest silence of a card whose firmware runs; 0: there was none.
    std::uint64_t looksInVain = 0;
    std::uint64_t silentSince_us = 0;
    std::uint64_t gaps[kNumGapRanges] = {};
    std::uint64_t lateLooks = 0;
    std::uint64_t longestGap_us = 0;
    std::uint64_t settings = 0;
    std::map<int, LineFacts> lines;                    // as they were set last
    std::uint64_t audioPlayed = 0, silencePlayed = 0;  // buffers
    std::uint64_t callers = 0, digits = 0;
};

struct Facts {
    static constexpr std::size_t kMostFailures = 100;
    CardFacts cards[2];
    std::map<std::string, std::uint64_t> failures;  // of calls, by what they were
    std::uint64_t records = 0;
    std::uint64_t end_us = 0;
    bool hasEnd = false;
    std::uint32_t exitStatus = 0;
};

}  // namespace cardtrace
