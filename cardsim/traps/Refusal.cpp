#include "traps/Refusal.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace cardsim {

namespace {

const char* refuser = "cardsim";

}  // namespace

void refuseInTheNameOf(const char* program) {
    refuser = program;
}

const char* nameOfRefuser() {
    return refuser;
}

int refuse(const char* way, const char* what, const char* reason, int error) {
    std::fprintf(stderr, "%s: process %d may not %s %s: %s\n", refuser, static_cast<int>(getpid()),
                 way, what, reason);
    errno = error;
    return -1;
}

}  // namespace cardsim
