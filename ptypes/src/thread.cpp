#include <time.h>

#include <cerrno>
#include <system_error>

#include "pasync.h"

namespace pt {

namespace {

constexpr int kThreadNotMade = 4;

}  // namespace

void psleep(uint milliseconds) {
    timespec left{};
    left.tv_sec = static_cast<time_t>(milliseconds / 1000);
    left.tv_nsec = static_cast<long>(milliseconds % 1000) * 1'000'000;
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

thread::thread(bool autofree) : deletesItself(autofree) {}

thread::~thread() {
    if (handle.joinable()) {
        handle.detach();
    }
}

void thread::start() {
    if (started.exchange(true)) {
        return;
    }
    running = true;
    try {
        if (deletesItself) {
            // The object may be gone as soon as the thread is there.
            std::thread(&thread::run, this).detach();
            return;
        }
        const std::lock_guard<std::mutex> lock(handleLock);
        handle = std::thread(&thread::run, this);
    } catch (const std::system_error&) {
        fatal(kThreadNotMade, "Thread cannot be created");
    }
}

void thread::waitfor() {
    const std::lock_guard<std::mutex> lock(handleLock);
    if (handle.joinable()) {
        handle.join();
    }
}

void thread::cleanup() {}

void thread::run() {
    execute();
    cleanup();
    running = false;
    finished = true;
    if (deletesItself) {
        delete this;
    }
}

}  // namespace pt
