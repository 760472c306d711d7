// What a trace must not tell: takes audio out of records, and the numbers of callers and digits.
#pragma once

#include "cards/CardMemory.h"
#include "format/Record.h"

namespace cardtrace {

class Discretion {
  public:
    Discretion(bool withoutAudioOfLines, bool withoutNumbersOfCallers)
        : withoutAudio(withoutAudioOfLines), withoutNumbers(withoutNumbersOfCallers) {}

    // To be called for each record in turn. Audio becomes zeros, and its places, lengths and
    // checksums stand behind the card's memory. Digits and callers, those of earlier calls included
    // that are still in the memory, become asterisks; their counts stay. What of a card whose kind
    // is unknown cannot be told apart becomes the same as a whole.
    void apply(Record& record);

  private:
    const bool withoutAudio;
    const bool withoutNumbers;
    KindsSeen kinds;
};

}  // namespace cardtrace
