// Which programs the traps can be put under: those that the dynamic linker starts.
#pragma once

#include <cstddef>

namespace cardsim {

// Why they cannot be put under that program, or under the interpreter of that script; null when
// they can, or when there is no such file to be started.
const char* whyNotTrapped(const char* path);

// The program that a shell would find by that name, by its path; false when there is none. Both
// functions allocate nothing.
bool findInPath(const char* name, char* path, std::size_t size);

}  // namespace cardsim
