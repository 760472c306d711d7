// The environment variable by which the program's processes find the ring.
#pragma once

namespace cardtrace {

constexpr const char* kRingVariable = "CARDTRACE_RING";

}  // namespace cardtrace
