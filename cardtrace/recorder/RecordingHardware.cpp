#include "recorder/RecordingHardware.h"

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cards/CallKinds.h"
#include "model/PortMap.h"

namespace cardtrace {

namespace {

using cardsim::DeviceCall;
namespace portMap = cardsim::portMap;

// Asked for once by each thread: a system call at each access would cost as much as all the rest.
thread_local std::uint32_t threadNumber __attribute__((tls_model("initial-exec"))) = 0;

std::uint32_t thisThread() {
    if (threadNumber == 0) {
        threadNumber = static_cast<std::uint32_t>(gettid());
    }
    return threadNumber;
}

}  // namespace

std::uint32_t RecordingHardware::in(std::uint16_t port, int bytes) {
    recordOwnerOnce();
    const std::uint32_t value = hardware.in(port, bytes);
    const std::uint64_t mask = (std::uint64_t{1} << (8 * bytes)) - 1;
    recordAccess(Kind::kIn, port, bytes, static_cast<std::uint32_t>(value & mask));
    return value;
}

void RecordingHardware::out(std::uint16_t port, int bytes, std::uint32_t value) {
    recordOwnerOnce();
    recordBuffersAtRelease(port, value);
    hardware.out(port, bytes, value);
    recordAccess(Kind::kOut, port, bytes, value);
}

bool RecordingHardware::readByte(std::uint16_t port, std::uint8_t& byte) {
    recordOwnerOnce();
    const bool worked = hardware.readByte(port, byte);
    const int error = errno;
    recordAccess(Kind::kDeviceIn, port, 1, worked ? byte : static_cast<std::uint32_t>(error),
                 !worked);
    errno = error;
    return worked;
}

bool RecordingHardware::writeByte(std::uint16_t port, std::uint8_t byte) {
    recordOwnerOnce();
    recordBuffersAtRelease(port, byte);
    const bool worked = hardware.writeByte(port, byte);
    const int error = errno;
    recordAccess(Kind::kDeviceOut, port, 1, worked ? byte : static_cast<std::uint32_t>(error),
                 !worked);
    errno = error;
    return worked;
}

void RecordingHardware::noticed(const DeviceCall& call, int error) {
    recordCall(kindOf(call.kind), {call.first, call.count, call.how}, error);
    hardware.noticed(call, error);
}

// Only the last part of its name: where people keep their files is nobody else's business.
void RecordingHardware::noticedFile(const char* name) {
    const char* const slash = std::strrchr(name, '/');
    const char* const last = slash == nullptr ? name : slash + 1;
    Record record;
    record.kind = Kind::kFile;
    record.thread = thisThread();
    record.time_us = surroundings.time_us();
    ring.put(record, last, std::min<std::size_t>(std::strlen(last), NAME_MAX));
    hardware.noticedFile(name);
}

bool RecordingHardware::sleep(std::uint64_t microseconds) {
    recordCall(Kind::kSleep, {0, microseconds, 0}, 0);
    return hardware.sleep(microseconds);
}

void RecordingHardware::recordOwner(std::uint32_t process) {
    Record record;
    record.kind = Kind::kCards;
    record.value = process;
    record.thread = thisThread();
    record.time_us = surroundings.time_us();
    ring.put(record, nullptr, 0);
}

void RecordingHardware::recordOwnerOnce() {
    const std::uint32_t process = ownerToTell == 0 ? 0 : ownerToTell.exchange(0);
    if (process != 0) {
        recordOwner(process);
    }
}

void RecordingHardware::recordAccess(Kind kind, std::uint16_t port, int bytes, std::uint32_t value,
                                     bool failed) {
    Record record;
    record.kind = kind;
    record.width = static_cast<std::uint8_t>(bytes);
    record.port = port;
    record.value = value;
    record.thread = thisThread();
    record.flags = failed                    ? Record::kFailed
                   : surroundings.hasCards() ? std::uint16_t{0}
                                             : Record::kUnanswered;
    record.time_us = surroundings.time_us();
    ring.put(record, nullptr, 0);
}

void RecordingHardware::recordCall(Kind kind, const CallData& call, int error) {
    Record record;
    record.kind = kind;
    record.value = static_cast<std::uint32_t>(error);
    record.thread = thisThread();
    record.time_us = surroundings.time_us();
    const std::string data = dataOf(call);
    ring.put(record, data.data(), data.size());
}

// The word that releases a buffer also ends the strobe of a boot byte and lets the DSP out of
// reset: then the control register was written before.
void RecordingHardware::recordBuffersAtRelease(std::uint16_t port, std::uint32_t value) {
    const int slot = portMap::slotOf(port);
    if (slot == -1) {
        return;
    }
    const std::uint16_t offset = port % portMap::kPortsOfCard;
    if (offset == portMap::kBuffer1 && value == portMap::kRun) {
        recordBuffers(slot);
    }
    if (offset == portMap::kControl) {
        const std::uint32_t before = lastControl[slot].exchange(value);
        if (value == portMap::kRun && before == portMap::kRun) {
            recordBuffers(slot);
        }
    }
}

// Word by word, since that is how card memory is reached on the bus.
void RecordingHardware::recordBuffers(int slot) {
    const volatile std::uint16_t* const memory = surroundings.memory();
    if (memory == nullptr) {
        return;
    }
    constexpr std::size_t kWords = kCardMemoryBytes / 2;
    std::uint16_t copy[kWords];
    const volatile std::uint16_t* word = memory + static_cast<std::size_t>(slot) * kWords;
    for (std::uint16_t& each : copy) {
        each = *word++;
    }
    Record record;
    record.kind = Kind::kBuffers;
    record.port = static_cast<std::uint16_t>(slot);
    record.thread = thisThread();
    record.time_us = surroundings.time_us();
    ring.put(record, copy, sizeof(copy));
}

void forgetThreadNumber() {
    threadNumber = 0;
}

}  // namespace cardtrace
