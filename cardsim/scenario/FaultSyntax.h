// Faults as people write them: KIND[:FIELD][@WHEN][/CARD], on the command line and in scenarios.
//
//     absent/1               card 1 is not there
//     byte-stuck@57          the 57th boot byte is never taken
//     counter-stuck@10-16    the counter stands still at seven hand-overs in a row
//     nonsense:digits@2%     every 50th hand-over or so a line's digits hold anything
#pragma once

#include <string>

#include "model/Faults.h"

namespace cardsim {

// Throws std::invalid_argument that says what is wrong with the text and what would be right.
Fault parseFault(const std::string& text);

// The syntax, every kind with what it does, and the fields of nonsense: lines of text for --help,
// each ending in a newline.
std::string faultHelp();

}  // namespace cardsim
