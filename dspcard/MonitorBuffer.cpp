#include "MonitorBuffer.h"

#include <algorithm>
#include <iostream>
#include <mutex>

#include "ConsoleLine.h"

namespace {

constexpr char kGettingData[] = "Getting data from monitor buffer, size now=";

}  // namespace

MonitorBuffer* MonitorBuffer::sInstance = nullptr;

MonitorBuffer& MonitorBuffer::getInstance() {
    static std::once_flag made;
    std::call_once(made, [] { sInstance = new MonitorBuffer; });
    return *sInstance;
}

void MonitorBuffer::addData(const char* buf, int size) {
    {
        const pt::scopelock lock(bufferMutex);
        buffer.Write(buf, static_cast<Ring::DWORD>(std::max(size, 0)));
    }
    ConsoleLine(std::cerr) << "Adding data to monitor buffer, size now=" << buffer.get_countUsed();
}

void MonitorBuffer::getData(char* destBuffer, int size) {
    read(destBuffer, size);
    ConsoleLine(std::cerr) << kGettingData << buffer.get_countUsed();
}

bool MonitorBuffer::getDataIfAny(char* destBuffer, int size) {
    if (read(destBuffer, size) == 0) {
        return false;
    }
    ConsoleLine(std::cerr) << kGettingData << buffer.get_countUsed();
    return true;
}

MonitorBuffer::Ring::DWORD MonitorBuffer::read(char* destBuffer, int size) {
    const pt::scopelock lock(bufferMutex);
    return buffer.Read(destBuffer, static_cast<Ring::DWORD>(std::max(size, 0)));
}

void MonitorBuffer::clear() {
    const pt::scopelock lock(bufferMutex);
    buffer.Discard(buffer.get_countUsed());
    clears.fetch_add(1, std::memory_order_release);
}

void MonitorBuffer::clearAgainSince(unsigned clearsBefore) {
    const pt::scopelock lock(bufferMutex);
    if (getClears() != clearsBefore) {
        buffer.Discard(buffer.get_countUsed());
    }
}
