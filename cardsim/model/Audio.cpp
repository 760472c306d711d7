#include "model/Audio.h"

#include <cmath>

namespace cardsim {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kSamplesPerSecond = 1333.0;

double tone(double hertz, std::uint64_t sample) {
    return std::sin(2 * kPi * hertz * static_cast<double>(sample) / kSamplesPerSecond);
}

unsigned pleasantSample(unsigned line, bool speaking, std::uint64_t sample) {
    constexpr double kMiddle = 128.0;
    double swing = 3.0 * tone(50.0, sample);
    if (speaking) {
        const double pitch = 110.0 + 14.0 * line;
        const double syllables = std::fabs(tone(1.7, sample));
        swing += 45.0 * syllables * (tone(pitch, sample) + 0.5 * tone(2.03 * pitch, sample));
    }
    return static_cast<unsigned>(std::lround(kMiddle + swing)) & 0xFF;
}

}  // namespace

std::uint16_t pleasantWord(unsigned line, bool speaking, std::uint64_t sample) {
    return static_cast<std::uint16_t>(pleasantSample(line, speaking, sample) |
                                      pleasantSample(line, speaking, sample + 1) << 8);
}

}  // namespace cardsim
