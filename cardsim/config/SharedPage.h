// The memory that the launcher shares with the programs it started: which of them has the cards,
// what the cards saw, and how the run is configured. A file without a name, held open by the
// launcher; the environment tells every process of the tree its path under /proc, so that it does
// not matter which descriptors a program closes.
#pragma once

#include <atomic>
#include <cstdint>

#include "model/Report.h"

namespace cardsim {

constexpr const char* kSharedPageVariable = "CARDSIM_SHARED_PAGE";

struct SharedPage {
    // Written by the launcher before the program starts: both were built from the same sources.
    static constexpr std::uint32_t kMagic = 0xCA4D0001 + sizeof(MachineReport);
    std::uint32_t magic;
    std::uint32_t configurationLength;  // the configuration's text stands behind the page

    // Written by the preload library.
    std::atomic<int> owner;        // process that has the cards; 0: none has asked yet
    std::atomic<bool> timeIsOver;  // the end of a run in virtual time has come
    MachineReport report;
};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

}  // namespace cardsim
