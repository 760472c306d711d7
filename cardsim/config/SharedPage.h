// What the launcher shares with the programs it started: what the cards saw, and how the run is
// configured. It lies in a file without a name, held open by the launcher; the environment tells
// every process of the tree its path under /proc, so that it does not matter which descriptors a
// program closes. A lock on that file says which process has the cards.
#pragma once

#include <atomic>
#include <cstdint>

#include "model/Report.h"
#include "replay/Deviation.h"

namespace cardsim {

constexpr const char* kSharedPageVariable = "CARDSIM_SHARED_PAGE";

// How a replay has ended: with the program, with the trace, or since the program did something
// else.
enum class ReplayEnd { kWithProgram, kWithTrace, kDeviation };

struct SharedPage {
    // Written by the launcher before the program starts: both were built from the same sources.
    static constexpr std::uint32_t kMagic = 0xCA4D0003 + sizeof(MachineReport);
    std::uint32_t magic;
    std::uint32_t configurationLength;  // the configuration's text stands behind the page
    int launcher;                       // process; hears by SIGUSR1 that the run is over

    // Written by the preload library.
    MachineReport report;                         // by the process that has the cards
    std::atomic<std::uint64_t> strangerAccesses;  // by processes that had not
    std::uint64_t accessesReplayed;
    std::atomic<ReplayEnd> replayEnd;
    cardtrace::Deviation deviation;  // when that is how the replay ended
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

}  // namespace cardsim
