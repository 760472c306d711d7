// Where the libraries are that a launcher puts in front of a program's own ones.
#pragma once

#include <string>

namespace cardsim {

// The library of that name beside this program, built or installed. Throws std::runtime_error.
std::string findPreloadLibrary(const std::string& name);

}  // namespace cardsim
