// Threads, locks and sleeps: the part of the PTypes interface that the driver uses.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

#include "ptypes.h"

namespace pt {

// Puts the calling thread to sleep for at least that long.
void psleep(uint milliseconds);

// A lock that its holder may not enter again.
class mutex {
  public:
    void enter() { lock.lock(); }
    void leave() { lock.unlock(); }

  private:
    std::mutex lock;
};

// Holds a mutex to the end of the scope.
class scopelock {
  public:
    explicit scopelock(mutex& toHold) : held(toHold) { held.enter(); }
    ~scopelock() { held.leave(); }
    scopelock(const scopelock&) = delete;
    scopelock& operator=(const scopelock&) = delete;

  private:
    mutex& held;
};

// One run of execute() on a thread of its own, then of cleanup() on the same thread. With autofree
// the object deletes itself after cleanup(); without, it must live until the thread has ended.
class thread {
  public:
    explicit thread(bool autofree);
    virtual ~thread();
    thread(const thread&) = delete;
    thread& operator=(const thread&) = delete;

    // Starts the thread; does nothing when it has been started before. Fatal if the system gives
    // no thread.
    void start();
    // Returns when the thread has ended; at once when it never started, and for a thread that frees
    // itself.
    void waitfor();
    bool get_running() const { return running; }
    bool get_finished() const { return finished; }

  protected:
    virtual void execute() = 0;
    virtual void cleanup();

  private:
    void run();

    const bool deletesItself;
    std::atomic<bool> started{false};
    std::atomic<bool> running{false};
    std::atomic<bool> finished{false};
    std::mutex handleLock;
    std::thread handle;
};

}  // namespace pt
