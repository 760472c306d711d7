// That no program under the launcher reaches the machine's own ports and memory: the kernel itself
// refuses what goes past the preload library, such as a system call without the C library.
#pragma once

namespace cardsim {

// For this process and all that it starts, for ever: no right to ports and physical memory, and no
// other rights by a program's file, which would also shake off the preload library.
void giveUpHardware();

// Throws std::runtime_error when this process was started with one of the devices open.
void refuseOpenDevices();

}  // namespace cardsim
