// What stands behind the traps: the machine's answer to port instructions, /dev/port, /dev/mem,
// port permission, sleeps, processor time and wishes for priority. The traps only decode and
// forward; a simulated PC or a test's scripted cards implement this.
//
// in, out, sleep and the grants are called on whatever thread of the program makes the access; in
// and out also from within a signal handler, on the thread whose instruction it was.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace cardsim {

// What a program asks for the ports or /dev/mem, apart from the accesses themselves.
struct DeviceCall {
    enum class Kind : std::uint8_t {
        kPermission,  // for ports first to first + count - 1; how: 1 to grant, 0 to take back
        kOpenPorts,   // how: the flags of open
        kOpenMemory,  // the same
        kMap,         // memory, count bytes from first; how: its protection
        kLock,        // the same; how: fcntl's command, and the kind of lock in the upper half
    };
    Kind kind;
    std::uint64_t first;
    std::uint64_t count;
    std::uint32_t how;
};

class Hardware {
  public:
    virtual ~Hardware() = default;

    // A read or write of 1, 2 or 4 bytes at an I/O port.
    virtual std::uint32_t in(std::uint16_t port, int bytes) = 0;
    virtual void out(std::uint16_t port, int bytes, std::uint32_t value) = 0;

    // Whether a thread may have port permission, and whether /dev/port may be opened: 0, or -1
    // with errno set.
    virtual int grantPorts() = 0;
    virtual int openPorts() = 0;
    // The path of a file that stands for physical memory, to be opened as the program opens
    // /dev/mem; empty, with errno set, when it may not.
    virtual std::string memoryPath() = 0;
    // A byte read or written through /dev/port; false with errno set when the device fails.
    virtual bool readByte(std::uint16_t port, std::uint8_t& byte) {
        byte = static_cast<std::uint8_t>(in(port, 1));
        return true;
    }
    virtual bool writeByte(std::uint16_t port, std::uint8_t byte) {
        out(port, 1, byte);
        return true;
    }
    // Whether such a call may be tried: 0, or the errno that it fails with. Mappings and locks ask
    // here only; then all are told what came of them: 0 or errno.
    virtual int permits(const DeviceCall&) { return 0; }
    virtual void noticed(const DeviceCall&, int /*error*/) {}
    // The thread that drives the cards opens a file, such as one with firmware; name: its path.
    virtual void noticedFile(const char* /*name*/) {}

    // The thread that drives the cards wants to sleep. True: the time has passed; false: it shall
    // sleep for real. May throw: the program's sleep lets the exception through.
    virtual bool sleep(std::uint64_t microseconds) = 0;
    // True: ticks is what clock() answers; false: the real processor time.
    virtual bool processorTime(std::clock_t& ticks) = 0;
    // Whether time is the hardware's own: then a thread that drives the cards never really sleeps.
    virtual bool hasOwnTime() {
        std::clock_t ignored = 0;
        return processorTime(ignored);
    }
};

// Puts hardware behind the traps, or none (null): then every call goes to the machine itself. The
// hardware stays the caller's and must be there as long as it is attached.
void attachHardware(Hardware* hardware);
Hardware* attachedHardware();

// The time that the program's system clock shows, in microseconds since 1970-01-01 UTC, from a
// function that may be called on any thread; null: the machine's. Clocks that measure how long
// something takes stay the machine's.
void replaceSystemClock(std::uint64_t (*microseconds)());

// Set by whoever wants to be asked for hardware as late as possible: called once, at the first
// ioperm, opening of /dev/port or /dev/mem or wish for real-time priority without hardware, or at
// the first access by a permission or a descriptor that is older than a fork; may attach some.
void onFirstUse(void (*attach)());
// The attached hardware, after onFirstUse had its turn.
Hardware* hardwareAtFirstUse();

}  // namespace cardsim
