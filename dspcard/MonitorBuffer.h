// Audio on its way to the output of card 0: the monitored line's, and what the client plays. A
// ring of 600 bytes; when more arrives than is played, the oldest bytes are lost.
//
// The runner thread writes and reads it during the exchanges; the client's threads empty it, also
// in the middle of an exchange. It counts how often it was emptied, so that an exchange can tell
// at its end that what it added since is wanted no more. Each change holds the mutex; isEmpty,
// isFull and getClears read their one number without it.
#pragma once

#include <pasync.h>

#include <atomic>

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
    // The same in one step with the question whether there are any: false when it is empty, and
    // then nothing is written, not even a console line.
    bool getDataIfAny(char* destBuffer, int size);
    // Empties it, and counts that.
    void clear();
    // How often clear has been called. Whoever sees a new number also sees the switches that were
    // set before that clear.
    unsigned getClears() const { return clears.load(std::memory_order_acquire); }
    // Empties it once more, uncounted, if it has been cleared since getClears gave that number.
    void clearAgainSince(unsigned clearsBefore);
    bool isEmpty() const { return buffer.is_empty(); }
    bool isFull() const { return buffer.is_full(); }

  private:
    using Ring = CCircularBuffer<char, kCapacity, false>;

    MonitorBuffer() = default;

    Ring::DWORD read(char* destBuffer, int size);
    void tellSize(const char* after) const;

    static MonitorBuffer* sInstance;

    pt::mutex bufferMutex;
    Ring buffer;
    std::atomic<unsigned> clears{0};
};
