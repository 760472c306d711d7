// What docs/troubleshooting.md has to say about what a trace shows.
#pragma once

#include <string>
#include <vector>

#include "show/Facts.h"

namespace cardtrace {

struct Advice {
    int card;             // -1: none in particular
    std::string message;  // of the driver, as that page has it
    std::string shown;    // by the trace
    std::string cure;
};

std::vector<Advice> adviceFor(const Facts& facts);

}  // namespace cardtrace
