// The page that the launcher and the program on its cards share: which process has the cards, and
// what the cards report. It outlives the program, however that ends. The configuration's text
// follows it in the same file.
#pragma once

#include <atomic>
#include <cstdint>

#include "model/Report.h"

namespace cardsim {

struct Session {
    std::atomic<int> owner;  // process that has the cards; 0: none yet
    MachineReport report;
    std::uint64_t configurationLength;  // bytes of text behind this structure
};

// The environment variable that names the session's file.
constexpr char kSessionVariable[] = "CARDSIM_SESSION";

}  // namespace cardsim
