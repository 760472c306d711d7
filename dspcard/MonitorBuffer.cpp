#include "MonitorBuffer.h"

#include <iostream>
#include <mutex>

#include "ConsoleLine.h"

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
    {
        const pt::scopelock lock(bufferMutex);
        buffer.Read(destBuffer, static_cast<Ring::DWORD>(std::max(size, 0)));
    }
    ConsoleLine(std::cerr) << "Getting data from monitor buffer, size now="
                           << buffer.get_countUsed();
}

void MonitorBuffer::clear() {
    const pt::scopelock lock(bufferMutex);
    buffer.Discard(buffer.get_countUsed());
}
