// What a trace tells as a whole, as text and as JSON.
#pragma once

#include <string>

#include "show/Facts.h"

namespace cardtrace {

// about: what the trace is of, as its file says; need not make sense.
std::string summaryText(const std::string& about, const Facts& facts);
std::string summaryJson(const std::string& about, const Facts& facts);

}  // namespace cardtrace
