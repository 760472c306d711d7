// What a card is to play, and the silence that hosts let a card play when there is nothing else.
#pragma once

#include "cards/CardMemory.h"
#include "format/Record.h"

namespace cardtrace {

enum class Playback { kAudio, kSilence, kNothing };

// What the host has put into a buffer to be played: nothing are zeros, as where no host ever wrote.
// Known by its checksum when audio was left out.
Playback playbackOf(const Record& buffers, int buffer, const cardsim::CardKind& kind);

}  // namespace cardtrace
