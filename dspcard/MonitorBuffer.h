// Audio on its way to the output of card 0: the monitored line's, and what the client plays. A
// ring of 600 bytes; when more arrives than is played, the oldest bytes are lost.
//
// The runner thread writes and reads it during the exchanges; the client's threads empty it. Each
// change holds the mutex; isEmpty and isFull read the count without it.
#pragma once

#include <pasync.h>

#include "CircularBuffer.h"

class MonitorBuffer {
  public:
    static constexpr int kCapacity = 600;

    // The single instance; made once, whichever thread asks first, and never destroyed.
    static MonitorBuffer& getInstance();

    virtual ~MonitorBuffer() = default;
    MonitorBuffer(const MonitorBuffer&) = delete;
    MonitorBuffer& operator=(const MonitorBuffer&) = delete;

    void addData(const char* buf, int size);
    // Takes up to size bytes; where fewer are stored, the rest of destBuffer is left as it was.
    void getData(char* destBuffer, int size);
    void clear();
    bool isEmpty() const { return buffer.is_empty(); }
    bool isFull() const { return buffer.is_full(); }

  private:
    using Ring = CCircularBuffer<char, kCapacity, false>;

    MonitorBuffer() = default;

    static MonitorBuffer* sInstance;

    pt::mutex bufferMutex;
    Ring buffer;
};
