// The system clock as the driver reads it: the part of the PTypes interface that it uses.
#pragma once

#include "ptypes.h"

namespace pt {

// Milliseconds since 0001-01-01 00:00:00 in the Gregorian calendar.
using datetime = large;

// The time of the system clock to the millisecond, in UTC or in local time.
datetime now(bool utc = true);

}  // namespace pt
