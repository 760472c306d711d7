#include "replay/ReplayedCards.h"

#include <poll.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cards/CallKinds.h"
#include "format/MachineTime.h"
#include "model/PortMap.h"

namespace cardtrace {

namespace {

namespace layout = cardsim::layout;
namespace portMap = cardsim::portMap;
using cardsim::DeviceCall;

std::string hexadecimal(std::uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace

ReplayedCards::ReplayedCards(const Script& toReplay, const Surroundings& outside)
    : script(toReplay),
      surroundings(outside),
      started_us(machineTime()),
      current(toReplay.begin()) {
    for (const ScriptRecord*& call : calls) {
        call = current;
    }
}

std::uint32_t ReplayedCards::in(std::uint16_t port, int bytes) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    const ScriptRecord* const met = meet({Kind::kIn, port, bytes, 0});
    return met == nullptr ? ~std::uint32_t{0} : met->value;
}

void ReplayedCards::out(std::uint16_t port, int bytes, std::uint32_t value) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    meet({Kind::kOut, port, bytes, value});
}

bool ReplayedCards::readByte(std::uint16_t port, std::uint8_t& byte) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    const ScriptRecord* const met = meet({Kind::kDeviceIn, port, 1, 0});
    const bool failed = met != nullptr && (met->flags & Record::kFailed) != 0;
    byte = met == nullptr ? 0xFF : static_cast<std::uint8_t>(met->value);
    errno = failed ? static_cast<int>(met->value) : errno;
    return !failed;
}

bool ReplayedCards::writeByte(std::uint16_t port, std::uint8_t byte) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    const ScriptRecord* const met = meet({Kind::kDeviceOut, port, 1, byte});
    const bool failed = met != nullptr && (met->flags & Record::kFailed) != 0;
    errno = failed ? static_cast<int>(met->value) : errno;
    return !failed;
}

// Whether this process has the cards. It goes on where one before it has ended.
bool ReplayedCards::begin() {
    if (!hasCards()) {
        return false;
    }
    std::uint64_t done = hasBegun ? 0 : *surroundings.accesses;
    for (hasBegun = true; done > 0 && current != nullptr; current = script.after(current)) {
        done -= current->isAccess() ? 1 : 0;
    }
    return true;
}

// The record of the trace that the access is; null in a process that has no cards.
const ScriptRecord* ReplayedCards::meet(const Access& access) {
    if (!begin()) {
        return nullptr;
    }
    skipUnmatched();
    if (current != nullptr && !matches(*current, access)) {
        if (isExtraRead(access)) {
            return &lastRead;
        }
        skipRestOfWait(access);
    }
    if (current == nullptr) {
        end();
    }
    const ScriptRecord& record = *current;
    if (!matches(record, access)) {
        const bool isRead = access.kind == Kind::kIn || access.kind == Kind::kDeviceIn;
        deviate(std::string(isRead ? "reads" : "writes " + hexadecimal(access.value) + " to") +
                " port " + hexadecimal(access.port) + ", " + std::to_string(8 * access.bytes) +
                " bits" + (access.kind >= Kind::kDeviceIn ? ", through /dev/port" : ""));
    }
    wait(record.time_us);
    *surroundings.elapsed_us = record.time_us;
    ++*surroundings.accesses;
    if (record.isRead()) {
        sameReads = isSameRead(record) ? sameReads + 1 : 1;
        lastRead = record;
        showBuffer(record);
    } else {
        sameReads = 0;
        if (lastBuffers != nullptr && (record.flags & Record::kFailed) == 0) {
            checkWritten(*lastBuffers, record);
        }
    }
    lastBuffers = nullptr;
    current = script.after(current);
    return &record;
}

bool ReplayedCards::matches(const ScriptRecord& record, const Access& access) const {
    const bool isRead = access.kind == Kind::kIn || access.kind == Kind::kDeviceIn;
    const bool knowsValue = isRead || (record.flags & Record::kFailed) != 0;
    return record.kind == access.kind && record.port == access.port &&
           record.width == access.bytes && (knowsValue || record.value == access.value);
}

// How often a host reads the same before it gives up follows from its clock: a few times more or
// less are no deviation.
bool ReplayedCards::isExtraRead(const Access& access) const {
    return sameReads >= kLongWait && lastRead.kind == access.kind && lastRead.port == access.port;
}

void ReplayedCards::skipRestOfWait(const Access& access) {
    const ScriptRecord* next = current;
    std::uint64_t skipped = 0;
    while (sameReads >= kLongWait && next != nullptr && isSameRead(*next)) {
        next = script.after(next);
        ++skipped;
    }
    if (next != nullptr && matches(*next, access)) {
        current = next;
        *surroundings.accesses += skipped;
    }
}

// As the one before, in what means something.
bool ReplayedCards::isSameRead(const ScriptRecord& record) const {
    return record.kind == lastRead.kind && record.port == lastRead.port &&
           ((record.value ^ lastRead.value) & ~std::uint32_t{portMap::kUndefinedStatus}) == 0;
}

// What is no access and no sleep is looked for elsewhere, or only tells.
void ReplayedCards::skipUnmatched() {
    while (current != nullptr && !current->isAccess() && current->kind != Kind::kSleep) {
        if (current->kind == Kind::kBuffers) {
            lastBuffers = current;
        }
        current = script.after(current);
    }
}

// A buffer that the host sees handed over for the first time gets what it held when it was
// released.
void ReplayedCards::showBuffer(const ScriptRecord& read) {
    Record seen;
    seen.kind = read.kind;
    seen.port = read.port;
    seen.width = read.width;
    seen.value = read.value;
    seen.flags = read.flags;
    kinds.see(seen);
    const int slot = portMap::slotOf(read.port);
    const std::uint16_t offset = read.port % portMap::kPortsOfCard;
    const bool isStatus = offset == portMap::kControl || offset == portMap::kBuffer1;
    if (slot == -1 || !isStatus || (read.value & portMap::kHandedOver) == 0) {
        return;
    }
    const int buffer = offset == portMap::kControl ? 0 : 1;
    const ScriptRecord* const buffers = buffersOfRelease(&read, slot, buffer);
    if (buffers == nullptr) {
        return;
    }
    const std::size_t first = static_cast<std::size_t>(buffer) * layout::kSecondBuffer;
    volatile std::uint16_t* word =
        surroundings.memory + static_cast<std::size_t>(slot) * layout::kCardWords + first;
    for (std::size_t i = first; i < first + layout::kSecondBuffer; ++i) {
        std::uint16_t value = 0;
        std::memcpy(&value, buffers->data() + 2 * i, sizeof(value));
        *word++ = value;
    }
}

const ScriptRecord* ReplayedCards::buffersOfRelease(const ScriptRecord* from, int slot,
                                                    int buffer) const {
    const ScriptRecord* buffers = nullptr;
    const auto base =
        static_cast<std::uint16_t>(portMap::kFirstBase + slot * portMap::kPortsOfCard);
    const int port = base + (buffer == 0 ? portMap::kControl : portMap::kBuffer1);
    for (const ScriptRecord* next = script.after(from); next != nullptr;
         next = script.after(next)) {
        if (next->kind == Kind::kBuffers && next->port == slot) {
            buffers = next;
        } else if (buffers != nullptr && next->isAccess()) {
            if (next->port == port) {
                return buffers;
            }
            buffers = nullptr;
        } else if (next->isAccess() && !next->isRead() && next->port == base + portMap::kReset) {
            return nullptr;  // a reset, before it was released
        }
    }
    return nullptr;
}

// What the host has put into the other buffer of the card by the time of a release.
void ReplayedCards::checkWritten(const ScriptRecord& buffers, const ScriptRecord& release) {
    const int slot = buffers.port;
    const cardsim::CardKind* const kind = kinds.kind(slot);
    if (kind == nullptr) {
        return;
    }
    const bool isSecond = release.port % portMap::kPortsOfCard == portMap::kBuffer1;
    const int other = isSecond ? 0 : layout::kSecondBuffer;
    const cardsim::TransferLayout& transfer = kind->transfer;
    checkWords(buffers, slot, other + transfer.command, transfer.firstPort - transfer.command,
               "the command");
    if ((buffers.flags & Record::kWithoutAudio) == 0) {
        checkWords(buffers, slot, other + transfer.playbackAudio, transfer.audioWords,
                   "the audio to be played");
    }
}

void ReplayedCards::checkWords(const ScriptRecord& buffers, int slot, int first, int count,
                               const char* what) {
    const volatile std::uint16_t* const memory =
        surroundings.memory + static_cast<std::size_t>(slot) * layout::kCardWords;
    for (int i = first; i < first + count; ++i) {
        std::uint16_t due = 0;
        std::memcpy(&due, buffers.data() + static_cast<std::size_t>(2 * i), sizeof(due));
        if (memory[i] != due) {
            deviate("has written " + hexadecimal(memory[i]) + " and not " + hexadecimal(due) +
                    " to byte " + hexadecimal(static_cast<std::uint64_t>(2 * i)) +
                    " of the memory of card " + std::to_string(slot) + ", word " +
                    std::to_string(i - first) + " of " + what);
        }
    }
}

int ReplayedCards::grantPorts() {
    return answerAs(Kind::kPermission);
}

std::string ReplayedCards::memoryPath() {
    return answerAs(Kind::kOpenMemory) == 0 ? surroundings.memoryPath : "";
}

// As the next recorded call of that kind was answered, which stays the next one.
int ReplayedCards::answerAs(Kind kind) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    const ScriptRecord* const call = nextCall(kind);
    if (call == nullptr || call->value == 0) {
        return 0;
    }
    errno = static_cast<int>(call->value);
    return -1;
}

int ReplayedCards::permits(const DeviceCall& call) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    const ScriptRecord* const recorded = nextCall(kindOf(call.kind));
    return recorded == nullptr ? 0 : static_cast<int>(recorded->value);
}

// Calls may come in another order than accesses, since other threads may make them; those of a kind
// must be the same.
void ReplayedCards::noticed(const DeviceCall& call, int) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    const Kind kind = kindOf(call.kind);
    const ScriptRecord* const recorded = nextCall(kind);
    if (recorded == nullptr) {
        return;
    }
    Record record;
    record.data.assign(recorded->data(), recorded->dataLength);
    const CallData due = callOf(record);
    if (due.first != call.first || due.count != call.count || due.how != call.how) {
        current = recorded;
        deviate("asks for " + hexadecimal(call.count) + " from " + hexadecimal(call.first) + " (" +
                hexadecimal(call.how) + ")");
    }
    calls[static_cast<int>(kind)] = script.after(recorded);
}

const ScriptRecord* ReplayedCards::nextCall(Kind kind) {
    const ScriptRecord*& call = calls[static_cast<int>(kind)];
    while (call != nullptr && call->kind != kind) {
        call = script.after(call);
    }
    return call;
}

bool ReplayedCards::sleep(std::uint64_t microseconds) {
    const std::lock_guard<std::recursive_mutex> guard(lock);
    if (!begin()) {
        return false;
    }
    skipUnmatched();
    if (current == nullptr) {
        end();
    }
    Record record;
    record.data.assign(current->data(), current->dataLength);
    if (current->kind != Kind::kSleep || callOf(record).count != microseconds) {
        deviate("sleeps for " + std::to_string(microseconds) + " microseconds");
    }
    *surroundings.elapsed_us = current->time_us + microseconds;
    sameReads = 0;
    current = script.after(current);
    return surroundings.virtualTime;
}

bool ReplayedCards::processorTime(std::clock_t& ticks) {
    if (surroundings.virtualTime) {
        ticks = static_cast<std::clock_t>(*surroundings.elapsed_us);
    }
    return surroundings.virtualTime;
}

// In the recorded time nothing comes earlier than it did.
void ReplayedCards::wait(std::uint64_t time_us) const {
    const std::uint64_t passed = machineTime() - started_us;
    if (!surroundings.virtualTime && time_us > passed + 1000) {
        poll(nullptr, 0, static_cast<int>((time_us - passed) / 1000));
    }
}

void ReplayedCards::deviate(const std::string& what) {
    Deviation deviation{};
    deviation.record = current == nullptr ? 0 : current->number;
    std::snprintf(deviation.text, sizeof(deviation.text), "%s", what.c_str());
    surroundings.onDeviation(deviation);
    std::abort();
}

void ReplayedCards::end() {
    surroundings.onEnd();
    std::abort();
}

}  // namespace cardtrace
