#include "Replay.h"

#include <cstdio>

namespace trials {

namespace {

std::string hex(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", value);
    return text;
}

std::string readOf(int port) {
    return "read of " + hex(static_cast<std::uint32_t>(port));
}
std::string writeOf(int port, std::uint32_t value) {
    return "write of " + hex(value) + " to " + hex(static_cast<std::uint32_t>(port));
}
std::string sleepOf(std::uint64_t microseconds) {
    return "sleep of " + std::to_string(microseconds) + " us";
}

std::string nameOf(const Access& access) {
    switch (access.kind) {
        case Access::Kind::kRead:
            return readOf(access.port);
        case Access::Kind::kWrite:
            return writeOf(access.port, access.value);
        default:
            return sleepOf(access.value);
    }
}

}  // namespace

std::uint32_t Replay::read(int port) {
    return next(readOf(port)).value;
}

void Replay::write(int port, std::uint32_t value) {
    next(writeOf(port, value));
}

void Replay::sleep(std::uint64_t microseconds) {
    next(sleepOf(microseconds));
}

void Replay::end() const {
    if (position < accesses.size()) {
        throw Deviation("access " + std::to_string(position) + ": " + nameOf(accesses[position]) +
                        " where nothing was due");
    }
}

const Access& Replay::next(const std::string& expected) {
    if (position == accesses.size()) {
        throw Deviation("access " + std::to_string(position) + ": nothing where a " + expected +
                        " was due");
    }
    const Access& access = accesses[position];
    if (nameOf(access) != expected) {
        throw Deviation("access " + std::to_string(position) + ": " + nameOf(access) + " where a " +
                        expected + " was due");
    }
    ++position;
    time = access.time_us;
    return access;
}

}  // namespace trials
