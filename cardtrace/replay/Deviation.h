// How a replay tells where the program does something else than the recorded host.
#pragma once

#include <cstdint>

namespace cardtrace {

// Where the program did something else. Plain memory of fixed size, for a page that outlives it.
struct Deviation {
    std::uint64_t record;  // that was expected, from 1; 0: there was none
    char text[200];        // what the program did instead
};

}  // namespace cardtrace
