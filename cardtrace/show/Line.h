// One line of what a trace tells, and lines of the same kind put together.
#pragma once

#include <cstdint>
#include <string>

namespace cardtrace {

enum class Topic { kDevices, kDetection, kBoot, kPolls, kTransfers, kLines, kRegisters, kSleeps };
constexpr const char* kTopicNames[] = {"devices",   "detection", "boot",      "polls",
                                       "transfers", "lines",     "registers", "sleeps"};

struct Line {
    std::uint64_t record = 0;  // number of the first record that it is about, from 1
    std::uint64_t time_us = 0;
    int card = -1;  // -1: none
    Topic topic = Topic::kDevices;
    std::string text;  // with what is left out when lines are put together

    // Lines with one word here, one behind the other, become one line; empty: it stands alone.
    std::string fold;
    std::uint64_t times = 1;
    std::uint64_t first = 0, last = 0;  // boot bytes
    std::uint64_t fewestReads = 0, mostReads = 0;
    std::uint64_t looks[2] = {};  // at each card
    std::uint64_t sleeps = 0, slept_us = 0;

    // A part of something that a later line tells as a whole.
    bool isDetail = false;
    int buffer = 0;  // of its card, handed over
    // It is to be completed by the next buffers of that card.
    bool waitsForBuffers = false;
};

// Adds a line of the same fold word to the one before.
void putTogether(Line& line, const Line& next);
// Its text, of all that was put together.
std::string textOf(const Line& line);

}  // namespace cardtrace
