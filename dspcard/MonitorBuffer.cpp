#include "MonitorBuffer.h"

#include <algorithm>
#include <iostream>

#include "ConsoleLine.h"
#include "MadeOnce.h"

MonitorBuffer* MonitorBuffer::sInstance = nullptr;

MonitorBuffer& MonitorBuffer::getInstance() {
    return madeOnce(sInstance, [] { return new MonitorBuffer; });
}

void MonitorBuffer::addData(const char* buf, int size) {
    {
        const pt::scopelock lock(bufferMutex);
        buffer.Write(buf, static_cast<Ring::DWORD>(std::max(size, 0)));
    }
    tellSize("Adding data to");
}

void MonitorBuffer::getData(char* destBuffer, int size) {
    read(destBuffer, size);
    tellSize("Getting data from");
}

bool MonitorBuffer::getDataIfAny(char* destBuffer, int size) {
    if (read(destBuffer, size) == 0) {
        return false;
    }
    tellSize("Getting data from");
    return true;
}

void MonitorBuffer::tellSize(const char* after) const {
    ConsoleLine(std::cerr) << after << " monitor buffer, size now=" << buffer.get_countUsed();
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
