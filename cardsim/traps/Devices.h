// Which paths name the cards' devices, and how those are opened.
#pragma once

namespace cardsim {

// Opens /dev/port or /dev/mem on the hardware with the program's flags; false when path is neither,
// or no hardware is attached. folder: to which a relative path belongs, as for openat. fd becomes
// the new descriptor, or -1 with errno set.
bool openDevice(int folder, const char* path, int flags, int& fd);
// Whether that path may not be opened in that way, since it is one of the devices on the hardware
// and only open and openat are served; then there is a line on standard error, and errno is set.
bool refusesDevice(const char* path, const char* way);

}  // namespace cardsim
