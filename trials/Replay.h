// The record of what the driver did, read by somebody who knows what it had to do: each expected
// access is asked for in turn, and the answer is the value that the driver got.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "ObservedPc.h"

namespace trials {

// The driver did something else than it had to.
class Deviation : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Replay {
  public:
    // The driver did nothing before start_us that matters.
    Replay(const std::vector<Access>& record, std::uint64_t start_us)
        : accesses(record), time(start_us) {}

    // The value that the driver read there. Throws Deviation when it did something else.
    std::uint32_t read(int port);
    void write(int port, std::uint32_t value);
    void sleep(std::uint64_t microseconds);
    // When the last access was over.
    std::uint64_t time_us() const { return time; }
    // Throws Deviation when the driver did more than was asked for.
    void end() const;

  private:
    const Access& next(const std::string& expected);

    const std::vector<Access>& accesses;
    std::size_t position = 0;
    std::uint64_t time;
};

}  // namespace trials
