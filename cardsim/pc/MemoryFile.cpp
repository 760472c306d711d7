#include "pc/MemoryFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace cardsim {

namespace {

constexpr off_t kCardMemory = 0xD0000;
constexpr std::size_t kCardMemoryLength = 0x4000;

[[noreturn]] void fail() {
    throw std::system_error(errno, std::generic_category(), "memory of the simulated cards");
}

volatile std::uint16_t* mapCards(int file) {
    void* const address =
        mmap(nullptr, kCardMemoryLength, PROT_READ | PROT_WRITE, MAP_SHARED, file, kCardMemory);
    if (address == MAP_FAILED) {
        fail();
    }
    return static_cast<volatile std::uint16_t*>(address);
}

}  // namespace

MemoryFile::MemoryFile(const std::string& path) : location(path) {
    if (!path.empty()) {
        const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
        mapping = mapCards(file);
        // Not held: closing any descriptor of a file ends the process's locks on it, and the
        // program may want to lock this one.
        close(file);
        return;
    }
    made = memfd_create("card-memory", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (made == -1 || ftruncate(made, kCardMemory + off_t{kCardMemoryLength}) != 0 ||
        fcntl(made, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK) != 0) {
        fail();
    }
    location = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(made);
    mapping = mapCards(made);
}

MemoryFile::~MemoryFile() {
    munmap(const_cast<std::uint16_t*>(mapping), kCardMemoryLength);
    if (made != -1) {
        close(made);
    }
}

}  // namespace cardsim
