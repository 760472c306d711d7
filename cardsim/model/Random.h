// A small generator of random numbers that is the same everywhere: everything random about the
// cards follows from one seed.
#pragma once

#include <cstdint>

namespace cardsim {

class Random {
  public:
    // Streams with different numbers are independent of each other.
    explicit Random(std::uint64_t seed, std::uint64_t stream = 0)
        : state(seed + 0x9E3779B97F4A7C15 * (stream + 1)) {
        next();
    }

    std::uint64_t next() {
        std::uint64_t z = state += 0x9E3779B97F4A7C15;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
        return z ^ (z >> 31);
    }
    // lowest to highest, both included.
    std::uint64_t between(std::uint64_t lowest, std::uint64_t highest) {
        return lowest + next() % (highest - lowest + 1);
    }
    // True with the given probability, 0 to 1.
    bool chance(double probability) {
        constexpr double kRange = 9007199254740992.0;  // 2 to the 53rd
        return static_cast<double>(next() >> 11) / kRange < probability;
    }

  private:
    std::uint64_t state;
};

}  // namespace cardsim
