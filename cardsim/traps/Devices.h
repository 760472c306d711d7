// Which paths and descriptors are the cards' devices, and how those are opened.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace cardsim {

// Opens /dev/port or /dev/mem on the hardware with the program's flags, by whatever path leads
// there; false when path is neither, or no hardware is attached. folder: to which a relative path
// belongs, as for openat. fd becomes the new descriptor, or -1 with errno set.
bool openDevice(int folder, const char* path, int flags, int& fd);
// Whether that path may not be opened in that way, since it is one of the devices on the hardware
// and only open and its like are served; then there is a line on standard error, and errno is set.
bool refusesDevice(const char* path, const char* way);

// Whether the descriptor is /dev/mem of the hardware.
bool isMemoryDevice(int fd);
// Whether a mapping of that memory may not be: it leads out of that of the simulated cards. Then
// there is a line on standard error, and errno is set.
bool refusesMapping(int fd, std::size_t length, off64_t offset);

}  // namespace cardsim
