// The trials: each tries to break the driver in one way, over and over, and says how often it
// tried, how many faults struck, and what it found. They print nothing but progress.
#pragma once

#include <cstdint>
#include <string>

#include "Outcome.h"

namespace trials {

// The bus of a card fails at each access of a boot and of a detection, in every way, once and for
// good. Only every so manieth access is tried.
Outcome sweepBoots(std::uint64_t every);

// Each word of a transfer buffer of both kinds of card is set to 0 and to 0xFFFF, and each of its
// bits is turned over, while the host has the buffer. Only every so manieth word is tried.
Outcome corruptBuffers(std::uint64_t every);

// Cards, calls, faults, commands and the pauses of the client, all from a seed: one run for each
// seed from the first on. verbose: a note for each run, with its digest.
Outcome runSchedules(std::uint64_t firstSeed, std::uint64_t count, bool verbose);

// The client stays away for that long, then takes all that has waited.
Outcome drainBacklog(std::uint64_t minutes);

// Shows how far a long trial has come, on standard error when that is a terminal.
void showProgress(const std::string& trial, std::uint64_t done, std::uint64_t all);

}  // namespace trials
