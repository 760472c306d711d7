// The library call by which a program makes threads, taken in front of the C library's own: as from
// the kernel, a new thread has the port permission of the one that makes it. Only for libraries
// under other programs: a sanitizer has to see how the threads of its own program begin.
#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>

#include "traps/PortTrap.h"
#include "traps/Real.h"

namespace cardsim {

namespace {

struct Start {
    void* (*run)(void*);
    void* argument;
    std::uint32_t ports;
};

void* startWithPorts(void* given) {
    const Start start = *std::unique_ptr<Start>(static_cast<Start*>(given));
    inheritPorts(start.ports);
    return start.run(start.argument);
}

}  // namespace

}  // namespace cardsim

using namespace cardsim;

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*run)(void*), void* argument) noexcept {
    const std::uint32_t ports = portsToInherit();
    if (ports == 0) {
        return REAL(pthread_create)(thread, attributes, run, argument);
    }
    std::unique_ptr<Start> start(new (std::nothrow) Start{run, argument, ports});
    if (start == nullptr) {
        return EAGAIN;
    }
    const int error = REAL(pthread_create)(thread, attributes, startWithPorts, start.get());
    if (error == 0) {
        [[maybe_unused]] const Start* const belongsToTheThread = start.release();
    }
    return error;
}
