// The checks of the cards themselves, by the driver's own detection. They reset the DSPs of the
// cards, write two words into the memory of each and send each DSP the first byte of a firmware;
// nothing else may use the cards meanwhile.
// Every card that answers is left with its DSP held in reset.
#pragma once

#include "Machine.h"
#include "Report.h"

namespace cardcheck {

constexpr int kMaxCards = 2;

// Channels of each card: 4 or 8; 0 when the driver would not use the card.
struct FoundCards {
    int channels[kMaxCards] = {};
};
// Without mayReset no card is touched.
FoundCards checkCards(Report& report, const Access& access, bool mayReset);

}  // namespace cardcheck
