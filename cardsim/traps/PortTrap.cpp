#include "traps/PortTrap.h"

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>

#include "traps/Hardware.h"
#include "traps/PortInstruction.h"
#include "traps/Refusal.h"
#include "traps/Registers.h"

namespace cardsim {

namespace {

constexpr unsigned long kFirstPort = 0x300;
constexpr unsigned long kNumPorts = 32;

// One bit a port. Initial-exec: the handler must not allocate.
thread_local std::uint32_t permittedPorts __attribute__((tls_model("initial-exec"))) = 0;
// The thread is at an access already: a fault now is the hardware's own, which may be another
// machine's that is simulated in turn.
thread_local bool isCarryingOut __attribute__((tls_model("initial-exec"))) = false;

// The thread has its permission from the one that made it, and has made no access yet.
thread_local bool isHeir __attribute__((tls_model("initial-exec"))) = false;

std::atomic<const void*> drivingThread{nullptr};
struct sigaction previousAction;

const void* thisThread() {
    return &permittedPorts;
}

bool mayAccess(unsigned long port, int bytes) {
    const unsigned long first = port - kFirstPort;
    if (port < kFirstPort || first + static_cast<unsigned long>(bytes) > kNumPorts) {
        return false;
    }
    const std::uint64_t wanted = ((std::uint64_t{1} << bytes) - 1) << first;
    return (permittedPorts & wanted) == wanted;
}

// Carries out the port instruction that the thread stands at and steps over it.
bool carryOut(ucontext_t& context) {
    auto& registers = context.uc_mcontext.gregs;
    PortInstruction instruction{};
    const auto* const code = reinterpret_cast<const unsigned char*>(registers[kInstructionPointer]);
    const auto port = static_cast<std::uint16_t>(registers[kDataRegister]);
    if (!decodePortInstruction(code, instruction) || !mayAccess(port, instruction.bytes)) {
        return false;
    }
    Hardware* const hardware = hardwareAtFirstUse();
    if (hardware == nullptr) {
        return false;
    }
    if (isHeir) {
        isHeir = false;
        drivingThread = thisThread();
    }
    const auto accumulator = static_cast<std::uint64_t>(registers[kAccumulator]);
    const std::uint64_t mask = (std::uint64_t{1} << (8 * instruction.bytes)) - 1;
    if (instruction.isOut) {
        hardware->out(port, instruction.bytes, static_cast<std::uint32_t>(accumulator & mask));
    } else {
        const std::uint64_t value = hardware->in(port, instruction.bytes) & mask;
        // A 32-bit result clears the upper half of rax; narrower ones leave the rest alone.
        const std::uint64_t kept = instruction.bytes == 4 ? 0 : accumulator & ~mask;
        registers[kAccumulator] = static_cast<greg_t>(kept | value);
    }
    registers[kInstructionPointer] += instruction.length;
    return true;
}

void handOn(int signal, siginfo_t* info, void* context) {
    if ((previousAction.sa_flags & SA_SIGINFO) != 0) {
        previousAction.sa_sigaction(signal, info, context);
    } else if (previousAction.sa_handler != SIG_DFL && previousAction.sa_handler != SIG_IGN) {
        previousAction.sa_handler(signal);
    } else {
        // The fault comes again as soon as the handler returns, and then it kills.
        struct sigaction deadly {};
        deadly.sa_handler = SIG_DFL;
        sigaction(SIGSEGV, &deadly, nullptr);
    }
}

void onFault(int signal, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    if (info->si_code == SI_KERNEL && !isCarryingOut) {
        isCarryingOut = true;
        const bool done = carryOut(*static_cast<ucontext_t*>(context));
        isCarryingOut = false;
        if (done) {
            errno = savedErrno;
            return;
        }
    }
    handOn(signal, info, context);
}

void installHandler() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        struct sigaction action {};
        action.sa_sigaction = onFault;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        sigaction(SIGSEGV, &action, &previousAction);
    });
}

}  // namespace

int setPortPermission(unsigned long from, unsigned long count, bool on) {
    const bool startsInside = from >= kFirstPort && from < kFirstPort + kNumPorts;
    if (!startsInside || count == 0 || count > kFirstPort + kNumPorts - from) {
        return refuse("ioperm for", "ports beyond 0x300 to 0x31F", "nothing else is served",
                      EINVAL);
    }
    const std::uint64_t ports = ((std::uint64_t{1} << count) - 1) << (from - kFirstPort);
    if (on) {
        permittedPorts |= static_cast<std::uint32_t>(ports);
        drivingThread = thisThread();
        installHandler();
    } else {
        permittedPorts &= ~static_cast<std::uint32_t>(ports);
    }
    return 0;
}

std::uint32_t portsToInherit() {
    return permittedPorts;
}

void inheritPorts(std::uint32_t ports) {
    permittedPorts = ports;
    isHeir = true;
}

bool drivesCards() {
    // A new thread may get the address of one that has ended, but not its permission.
    return permittedPorts != 0 && drivingThread == thisThread();
}

}  // namespace cardsim

#ifdef __SANITIZE_THREAD__
// Hardware may allocate in the fault handler: the fault is the thread's own, at an instruction that
// holds no lock of the allocator.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif
