// The registers of a thread as a signal handler finds them, by one name on both kinds of x86.
#pragma once

#include <ucontext.h>

namespace cardsim {

#ifdef __x86_64__
constexpr int kInstructionPointer = REG_RIP;
constexpr int kAccumulator = REG_RAX;
constexpr int kDataRegister = REG_RDX;
#else
constexpr int kInstructionPointer = REG_EIP;
constexpr int kAccumulator = REG_EAX;
constexpr int kDataRegister = REG_EDX;
#endif

}  // namespace cardsim
