// How the traps refuse what would go past the hardware: a line on standard error, and errno.
#pragma once

namespace cardsim {

// The program that the lines begin with, "cardsim" unless set; the text must stay.
void refuseInTheNameOf(const char* program);
const char* nameOfRefuser();

// "PROGRAM: process N may not WAY WHAT: REASON"; errno becomes error. -1, for callers that answer
// with it.
int refuse(const char* way, const char* what, const char* reason, int error);

}  // namespace cardsim
