// A PC with simulated cards that keeps a record of everything the driver does to them, and whose
// bus can be made to fail at a chosen access. Runs on the thread that drives the cards.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "pc/SimulatedPc.h"

namespace trials {

// One thing that the driver did: an access to a port, or a sleep.
struct Access {
    enum class Kind { kRead, kWrite, kSleep };

    Kind kind;
    std::uint16_t port;     // 0 for a sleep
    std::uint32_t value;    // read, written, or slept in microseconds
    std::uint64_t time_us;  // when it was over
};

// How the bus of a card fails.
enum class BusFault {
    kNone,
    kStuckBits,   // reads and writes carry zeros
    kWrongValue,  // one bit of what is read or written is turned over
    kGone,        // nobody answers, what is written is lost
    kJustInTime,  // what a wait is for shows just before the wait is over
    kJustTooLate  // and just after
};

// The memory of both cards at one moment.
using MemoryImage = std::vector<std::uint16_t>;

class ObservedPc : public cardsim::SimulatedPc {
  public:
    explicit ObservedPc(const Options& options);
    ~ObservedPc() override;

    // What has happened since the last time.
    std::vector<Access> takeRecord();
    // Card memory as the driver sees it.
    volatile std::uint16_t* memory() const { return words; }
    MemoryImage memoryNow() const;
    // As it was when the driver released a buffer first since the last takeRecord.
    const MemoryImage& memoryAtRelease() const { return released; }

    // From the access with that number on, counted from 0 now, or at that one only.
    void breakBus(BusFault fault, std::uint64_t access, bool forGood);
    void mendBus() { breakBus(BusFault::kNone, 0, false); }
    // When the fault struck first, or 0 when it has not.
    std::uint64_t struckAt() const { return struck; }

    // Called at each sleep of that many microseconds, after it is recorded and before time passes;
    // and when it has passed.
    void onSleep(std::uint64_t microseconds, std::function<void()> before,
                 std::function<void()> after);

    std::uint32_t in(std::uint16_t port, int bytes) override;
    void out(std::uint16_t port, int bytes, std::uint32_t value) override;
    bool sleep(std::uint64_t microseconds) override;

  private:
    void record(Access::Kind kind, std::uint16_t port, std::uint32_t value);
    bool isPolling(std::uint16_t port) const;
    void letTimePass();
    bool fails();
    std::uint32_t failingRead(std::uint16_t port, std::uint32_t value);

    volatile std::uint16_t* words;
    std::vector<Access> accesses;
    MemoryImage released;

    BusFault busFault = BusFault::kNone;
    std::uint64_t firstFailing = 0;
    bool failsForGood = false;
    std::uint64_t sinceBroken = 0;  // accesses
    std::uint64_t struck = 0;
    std::uint64_t waitStart = 0;  // when the last access that was no polling was over
    bool waitFails = false;
    int polls = 0;  // of one status port in a row

    std::uint64_t watchedSleep = 0;
    std::function<void()> beforeSleep, afterSleep;
};

}  // namespace trials
