// That what a program starts stays under the traps.
#pragma once

namespace cardsim {

// Whatever this process starts gets that variable as it is now, even when the program hands down
// another environment. For the preload library: the traps are put under other programs by it.
void keepForChildren(const char* variable);

}  // namespace cardsim
