// Port permission of threads, and the fault handler that carries out their port instructions.
#pragma once

#include <cstdint>

namespace cardsim {

// ioperm for the calling thread, within the cards' ports. The first grant of the process installs
// the fault handler, after that of a language's virtual machine, whose own it hands on to.
int setPortPermission(unsigned long from, unsigned long count, bool on);

// What a thread that the calling one makes has to be given as it begins.
std::uint32_t portsToInherit();
void inheritPorts(std::uint32_t ports);

// Whether the calling thread drives the cards: the last one that was granted ports, or that touched
// them first of those that it was inherited by.
bool drivesCards();

}  // namespace cardsim
