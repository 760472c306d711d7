// What a real card may do otherwise than a simulated one without harm, and why. Each can be asked
// for, and counts as a difference then.
#pragma once

namespace cardtrace {

enum class Harmless { kUndefinedBits, kHandshakeTimes, kVoiceTimes, kPeriod };

struct HarmlessDescription {
    Harmless kind;
    const char* name;
    const char* reason;
};
inline constexpr HarmlessDescription kHarmless[] = {
    {Harmless::kUndefinedBits, "undefined-bits",
     "bits of the registers without a meaning change from reading to reading"},
    {Harmless::kHandshakeTimes, "handshake-times",
     "a card may take its time to ask for a boot byte, or to take it, as long as it does in the "
     "end"},
    {Harmless::kVoiceTimes, "voice-times",
     "a line may become loud or quiet between two buffers, where no trace shows it"},
    {Harmless::kPeriod, "period",
     "how often a card hands over buffers is its firmware's business; the simulated period is a "
     "guess"},
};

}  // namespace cardtrace
