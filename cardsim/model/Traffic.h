// Calls that come and go by themselves on every line, as on a busy small exchange.
#pragma once

#include <cstdint>

#include "model/Cards.h"

namespace cardsim {

// Lets calls happen on all lines of the cards from time 0 on, for as long as the cards live. What
// happens on a line, and when, follows from the seed alone, whatever the other lines and the host
// do.
void planTraffic(Cards& cards, std::uint64_t seed);

}  // namespace cardsim
