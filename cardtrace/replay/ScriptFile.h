// Makes the script of a trace.
#pragma once

#include <cstdint>
#include <string>

namespace cardtrace {

struct ScriptFile {
    int file = -1;  // without a name; the caller's
    std::uint64_t accesses = 0;
    std::string stoppedBy;  // why it does not go to the end of the trace; empty: it does
};

// Throws NotATrace, std::runtime_error when the beginning of the trace is missing.
ScriptFile makeScript(const std::string& tracePath);

}  // namespace cardtrace
