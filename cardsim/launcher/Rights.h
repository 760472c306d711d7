// That no program under the launcher reaches the machine's own ports and memory: the kernel itself
// refuses what goes past the preload library, such as a system call without the C library.
#pragma once

namespace cardsim {

// For this process and all that it starts, for ever: no right to ports and physical memory, and no
// other rights by a program's file, which would also shake off the preload library.
void giveUpHardware();
// Programs find what the launcher shares with them by its number, which the kernel hides when the
// launcher was started with a right of its own, as a service is.
void letProgramsFindThisProcess();

// Throws std::runtime_error when this process was started with one of the devices open.
void refuseOpenDevices();

}  // namespace cardsim
