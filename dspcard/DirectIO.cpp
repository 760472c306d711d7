#include "DirectIO.h"

#include <fcntl.h>
#include <sys/io.h>
#include <sys/mman.h>

#include <iostream>
#include <mutex>

#include "CardPorts.h"
#include "ConsoleLine.h"
#include "FileDescriptor.h"

namespace {

// Ends with the thread, as the permission does; the thread's number may come again.
thread_local bool hasAskedForPorts = false;

}  // namespace

DirectIO* DirectIO::sInstance = nullptr;

DirectIO& DirectIO::getInstance() {
    static std::once_flag made;
    std::call_once(made, [] { sInstance = new DirectIO; });
    return *sInstance;
}

void DirectIO::allowPortAccess() {
    hasAskedForPorts = true;
    if (ioperm(kBasePortBoard0, kNumCardPorts, 1) == -1) {
        note(Failure::kPortPermission, errno);
        reportErrno("failed to allow port access, errno=");
        return;
    }
    note(Failure::kNone, 0);
    portsEnabled = true;
    std::cerr << "Ports enabled OK\n";
}

void DirectIO::ensurePortAccess() {
    if (!hasAskedForPorts) {
        allowPortAccess();
    }
}

void DirectIO::disallowPortAccess() {
    hasAskedForPorts = false;
    ioperm(kBasePortBoard0, kNumCardPorts, 0);
    portsEnabled = false;
    std::cerr << "Ports disabled OK\n";
}

void* DirectIO::mapMemory(unsigned long baseAddr, unsigned long length) {
    ConsoleLine(std::cout) << "Opening /dev/mem";
    const FileDescriptor memory(open("/dev/mem", O_RDWR));
    if (!memory.isOpen()) {
        note(Failure::kMemoryDevice, errno);
        ConsoleLine(std::cerr) << "Couldn't access /dev/mem";
        return nullptr;
    }
    void* const mapping = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(),
                               static_cast<off_t>(baseAddr));
    if (mapping == MAP_FAILED) {
        note(Failure::kMemoryMapping, errno);
        reportErrno("mmap failed errno=");
        return nullptr;
    }
    note(Failure::kNone, 0);
    baseMemory = mapping;
    memoryLength = static_cast<std::uint32_t>(length);
    return baseMemory;
}

void DirectIO::unmapMemory() {
    if (baseMemory == nullptr) {
        return;
    }
    if (munmap(baseMemory, memoryLength) < 0) {
        reportErrno("Munmap failed! errno=");
    }
    baseMemory = nullptr;
    memoryLength = 0;
}

void DirectIO::note(Failure what, int error) {
    failure = what;
    failureErrno = error;
}
