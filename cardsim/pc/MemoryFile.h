// A file that stands for the PC's physical memory: the memory of the cards lies in it at its own
// address. Whoever opens it by its path shares it with everybody else, locks on it included.
#pragma once

#include <cstdint>
#include <string>

namespace cardsim {

class MemoryFile {
  public:
    // path: of a file that somebody else has made; empty: makes one. Throws std::system_error.
    explicit MemoryFile(const std::string& path = "");
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    // By which any process can open it, as long as the process that made it holds it.
    const std::string& path() const { return location; }
    // The memory of both cards.
    volatile std::uint16_t* words() const { return mapping; }

  private:
    int made = -1;  // descriptor of a file that was made here
    std::string location;
    volatile std::uint16_t* mapping = nullptr;
};

}  // namespace cardsim
