#include <cstdio>
#include <cstdlib>

#include "ptypes.h"

namespace pt {

void fatal(int code, const char* message) {
    std::fprintf(stderr, "\nInternal [%04x]: %s\n", static_cast<unsigned>(code), message);
    std::exit(code);
}

}  // namespace pt
