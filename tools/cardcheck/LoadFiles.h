// The checks of the firmware: load files and the section files that they name, read as the driver
// reads them at a boot. They touch no hardware.
#pragma once

#include <string>
#include <vector>

#include "Cards.h"
#include "Report.h"

namespace cardcheck {

// Checks the files with these names; without names every LOAD_*.TXT in the working directory, and
// that there is one for each card found.
void checkLoadFiles(Report& report, const std::vector<std::string>& names, const FoundCards& found);

}  // namespace cardcheck
