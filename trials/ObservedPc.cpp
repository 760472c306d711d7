#include "ObservedPc.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "model/PortMap.h"

namespace trials {

namespace {

using cardsim::portMap::kPortsOfCard;

constexpr off_t kMemoryAddress = 0xD0000;
constexpr std::size_t kMemoryWords = 0x2000;
constexpr int kPollsAtFullSpeed = 8;
constexpr std::uint64_t kHandshakeLimit_us = 200'000;
constexpr std::uint64_t kShortBefore_us = kHandshakeLimit_us - 20;
constexpr std::uint64_t kShortAfter_us = kHandshakeLimit_us + 50;

bool isStatusPort(std::uint16_t port) {
    return port % kPortsOfCard == cardsim::portMap::kControl;
}

bool isSlow(BusFault fault) {
    return fault == BusFault::kJustInTime || fault == BusFault::kJustTooLate;
}

std::uint32_t broken(BusFault fault, std::uint64_t access, std::uint32_t value) {
    switch (fault) {
        case BusFault::kStuckBits:
            return 0;
        case BusFault::kWrongValue:
            return value ^ 1u << access % 8;
        case BusFault::kGone:
            return cardsim::portMap::kNobody;
        default:
            return value;
    }
}

bool isReleasePort(std::uint16_t port) {
    return isStatusPort(port) || port % kPortsOfCard == cardsim::portMap::kBuffer1;
}

}  // namespace

ObservedPc::ObservedPc(const Options& options) : SimulatedPc(options) {
    const int file = open(memoryPath().c_str(), O_RDWR);
    void* const address =
        mmap(nullptr, 2 * kMemoryWords, PROT_READ | PROT_WRITE, MAP_SHARED, file, kMemoryAddress);
    close(file);
    if (address == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "card memory");
    }
    words = static_cast<volatile std::uint16_t*>(address);
}

ObservedPc::~ObservedPc() {
    munmap(const_cast<std::uint16_t*>(words), 2 * kMemoryWords);
}

std::vector<Access> ObservedPc::takeRecord() {
    released.clear();
    return std::exchange(accesses, {});
}

MemoryImage ObservedPc::memoryNow() const {
    return MemoryImage(words, words + kMemoryWords);
}

void ObservedPc::breakBus(BusFault fault, std::uint64_t access, bool forGood) {
    busFault = fault;
    firstFailing = access;
    failsForGood = forGood;
    sinceBroken = 0;
    struck = 0;
    waitFails = false;
}

void ObservedPc::onSleep(std::uint64_t microseconds, std::function<void()> before,
                         std::function<void()> after) {
    watchedSleep = microseconds;
    beforeSleep = std::move(before);
    afterSleep = std::move(after);
}

std::uint32_t ObservedPc::in(std::uint16_t port, int bytes) {
    if (isPolling(port)) {
        letTimePass();
    } else {
        waitStart = now();
        waitFails = false;
        polls = 0;
    }
    std::uint32_t value = SimulatedPc::in(port, bytes);
    if (busFault != BusFault::kNone && (fails() || waitFails)) {
        value = failingRead(port, value);
    }
    record(Access::Kind::kRead, port, value);
    return value;
}

void ObservedPc::out(std::uint16_t port, int bytes, std::uint32_t value) {
    if (isReleasePort(port) && value == cardsim::portMap::kRun && released.empty()) {
        released = memoryNow();
    }
    record(Access::Kind::kWrite, port, value);
    if (busFault == BusFault::kNone || !fails() || isSlow(busFault)) {
        SimulatedPc::out(port, bytes, value);
    } else {
        struck = struck == 0 ? now() : struck;
        if (busFault != BusFault::kGone) {
            SimulatedPc::out(port, bytes, broken(busFault, firstFailing, value));
        }
    }
    accesses.back().time_us = now();
}

bool ObservedPc::sleep(std::uint64_t microseconds) {
    record(Access::Kind::kSleep, 0, static_cast<std::uint32_t>(microseconds));
    const bool watched = microseconds == watchedSleep && beforeSleep != nullptr;
    if (watched) {
        beforeSleep();
    }
    const bool passed = SimulatedPc::sleep(microseconds);
    if (watched) {
        afterSleep();
    } else {
        accesses.back().time_us = now();
    }
    return passed;
}

void ObservedPc::record(Access::Kind kind, std::uint16_t port, std::uint32_t value) {
    accesses.push_back({kind, port, value, now()});
}

bool ObservedPc::isPolling(std::uint16_t port) const {
    return isStatusPort(port) && !accesses.empty() && accesses.back().port == port &&
           accesses.back().kind == Access::Kind::kRead;
}

// A host that polls more slowly finds out no later, and a time-out costs the trial less.
void ObservedPc::letTimePass() {
    if (++polls > kPollsAtFullSpeed) {
        const std::uint64_t waited = now() - waitStart;
        SimulatedPc::sleep(waited < kHandshakeLimit_us - 1000 ? 500 : 10);
    }
}

bool ObservedPc::fails() {
    const std::uint64_t access = sinceBroken++;
    return failsForGood ? access >= firstFailing : access == firstFailing;
}

std::uint32_t ObservedPc::failingRead(std::uint16_t port, std::uint32_t value) {
    if (isSlow(busFault) && !isStatusPort(port)) {
        return value;  // nothing there to wait for
    }
    struck = struck == 0 ? now() : struck;
    if (!isSlow(busFault)) {
        return broken(busFault, firstFailing, value);
    }
    waitFails = true;  // for as long as this wait lasts
    const std::uint64_t limit =
        busFault == BusFault::kJustInTime ? kShortBefore_us : kShortAfter_us;
    const std::uint32_t notReady =
        (value & ~std::uint32_t{cardsim::portMap::kWantsByte}) | cardsim::portMap::kByteBusy;
    return now() - waitStart < limit ? notReady : value;
}

}  // namespace trials
