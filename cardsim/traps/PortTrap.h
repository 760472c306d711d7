// Port permission of threads, and the fault handler that carries out their port instructions.
#pragma once

namespace cardsim {

// ioperm for the calling thread, within the cards' ports. The first grant of the process installs
// the fault handler, after that of a language's virtual machine, whose own it hands on to.
int setPortPermission(unsigned long from, unsigned long count, bool on);

// Whether the calling thread drives the cards: the last one that was granted ports.
bool drivesCards();

}  // namespace cardsim
