#include "DirectIO.h"

#include <fcntl.h>
#include <sys/io.h>
#include <sys/mman.h>

#include <atomic>
#include <fstream>
#include <iostream>

#include "CardPorts.h"
#include "ConsoleLine.h"
#include "FileDescriptor.h"
#include "MadeOnce.h"

namespace {

// Ends with the thread, as the permission does; the thread's number may come again.
thread_local bool hasAskedForPorts = false;

// Whether this process maps claimed memory. From then on no descriptor of /dev/mem is closed: with
// any of them the claim would go.
std::atomic<bool> hasClaim{false};

std::string nameOf(pid_t process) {
    if (process <= 0) {
        return "another process";
    }
    const std::string number = std::to_string(process);
    std::string program;
    std::getline(std::ifstream("/proc/" + number + "/comm"), program);
    return "process " + number + (program.empty() ? "" : " (" + program + ")");
}

}  // namespace

DirectIO* DirectIO::sInstance = nullptr;

DirectIO& DirectIO::getInstance() {
    return madeOnce(sInstance, [] { return new DirectIO; });
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
    ConsoleLine(std::cerr, ConsoleLine::kUnflushed) << "Ports enabled OK";
}

void DirectIO::askForPortAccessOnce() {
    if (!hasAskedForPorts) {
        allowPortAccess();
    }
}

void DirectIO::disallowPortAccess() {
    hasAskedForPorts = false;
    ioperm(kBasePortBoard0, kNumCardPorts, 0);
    portsEnabled = false;
    ConsoleLine(std::cerr, ConsoleLine::kUnflushed) << "Ports disabled OK";
}

void* DirectIO::mapMemory(unsigned long baseAddr, unsigned long length) {
    ConsoleLine(std::cout) << "Opening /dev/mem";
    FileDescriptor memory(open("/dev/mem", O_RDWR));
    if (!memory.isOpen()) {
        note(Failure::kMemoryDevice, errno);
        ConsoleLine(std::cerr) << "Couldn't access /dev/mem";
        return nullptr;
    }
    if (!claim(memory.get(), baseAddr, length)) {
        note(Failure::kMemoryInUse, EBUSY);
        return nullptr;
    }
    void* const mapping = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(),
                               static_cast<off_t>(baseAddr));
    if (mapping == MAP_FAILED) {
        note(Failure::kMemoryMapping, errno);
        reportErrno("mmap failed errno=");
        if (hasClaim) {
            memory.release();
        }
        return nullptr;
    }
    hasClaim = true;
    fcntl(memory.release(), F_SETFD, FD_CLOEXEC);
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

bool DirectIO::claim(int memory, unsigned long baseAddr, unsigned long length) {
    struct flock lock {};
    do {
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = static_cast<off_t>(baseAddr);
        lock.l_len = static_cast<off_t>(length);
        if (fcntl(memory, F_SETLK, &lock) == 0) {
            return true;
        }
        if (errno != EACCES && errno != EAGAIN) {
            reportErrno("Couldn't lock /dev/mem errno=");
            return true;  // a kernel without locks: nobody can be kept away
        }
        holder = nameOf(fcntl(memory, F_GETLK, &lock) == 0 ? lock.l_pid : 0);
    } while (lock.l_type == F_UNLCK);  // given up meanwhile
    return false;
}

void DirectIO::note(Failure what, int error) {
    failure = what;
    failureErrno = error;
}
