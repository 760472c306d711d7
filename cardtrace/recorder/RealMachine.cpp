#include "recorder/RealMachine.h"

#include <fcntl.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "traps/Real.h"

namespace cardtrace {

namespace {

constexpr unsigned long kFirstPort = 0x300;
constexpr unsigned long kNumPorts = 32;
constexpr off_t kCardMemory = 0xD0000;
constexpr std::size_t kCardMemoryLength = 0x4000;

// The calling thread has permission for the ports of one access, and none before and after: so the
// program's own instructions keep faulting.
class Permission {
  public:
    Permission(std::uint16_t firstPort, int count)
        : first(firstPort), number(static_cast<unsigned long>(count)) {
        REAL(ioperm)(first, number, 1);
    }
    ~Permission() { REAL(ioperm)(first, number, 0); }
    Permission(const Permission&) = delete;
    Permission& operator=(const Permission&) = delete;

  private:
    const unsigned long first;
    const unsigned long number;
};

}  // namespace

std::uint32_t RealMachine::in(std::uint16_t port, int bytes) {
    const Permission permission(port, bytes);
    switch (bytes) {
        case 1:
            return inb(port);
        case 2:
            return inw(port);
        default:
            return inl(port);
    }
}

void RealMachine::out(std::uint16_t port, int bytes, std::uint32_t value) {
    const Permission permission(port, bytes);
    switch (bytes) {
        case 1:
            outb(static_cast<std::uint8_t>(value), port);
            break;
        case 2:
            outw(static_cast<std::uint16_t>(value), port);
            break;
        default:
            outl(value, port);
            break;
    }
}

// The program's descriptor may be one that a process before it has opened.
bool RealMachine::readByte(std::uint16_t port, std::uint8_t& byte) {
    return openPorts() == 0 && REAL(pread)(ports, &byte, 1, port) == 1;
}

bool RealMachine::writeByte(std::uint16_t port, std::uint8_t byte) {
    return openPorts() == 0 && REAL(pwrite)(ports, &byte, 1, port) == 1;
}

// Whether the kernel would have granted them.
int RealMachine::grantPorts() {
    if (REAL(ioperm)(kFirstPort, kNumPorts, 1) != 0) {
        return -1;
    }
    return REAL(ioperm)(kFirstPort, kNumPorts, 0);
}

int RealMachine::openPorts() {
    if (ports == -1) {
        ports = REAL(open)("/dev/port", O_RDWR | O_CLOEXEC);
    }
    return ports == -1 ? -1 : 0;
}

const volatile std::uint16_t* RealMachine::memory() {
    if (!triedMemory) {
        triedMemory = true;
        const int savedErrno = errno;
        // Never closed: with any descriptor of the device the program's lock on it would go.
        const int file = REAL(open)("/dev/mem", O_RDONLY | O_CLOEXEC);
        void* const address = file == -1 ? MAP_FAILED
                                         : REAL(mmap)(nullptr, kCardMemoryLength, PROT_READ,
                                                      MAP_SHARED, file, kCardMemory);
        cardMemory =
            address == MAP_FAILED ? nullptr : static_cast<const volatile std::uint16_t*>(address);
        errno = savedErrno;
    }
    return cardMemory;
}

}  // namespace cardtrace
