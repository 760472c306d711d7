#include "Console.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <system_error>
#include <thread>
#include <utility>

namespace console {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTimeToEnd{1000};

struct Line {
    std::string text;
    std::uint64_t number = 0;    // over both streams
    unsigned droppedBefore = 0;  // lines of this stream
};

std::string noteOfDropped(unsigned lines) {
    return "dspcard: " + std::to_string(lines) + (lines == 1 ? " line was" : " lines were") +
           " dropped here, since the console took none\n";
}

// The lines that wait for one stream: a ring that one thread fills and one empties. Neither ever
// waits for the other.
class WaitingLines {
  public:
    explicit WaitingLines(int descriptor) : fd(descriptor) {}

    // On the thread that prints. There must be room.
    void append(const std::string& text, std::uint64_t number) {
        Line& line = lines[appended % kMostLinesWaiting];
        line.text = text;
        line.number = number;
        line.droppedBefore = dropped.exchange(0);
        appended.fetch_add(1, std::memory_order_release);
    }
    void drop() { ++dropped; }

    // On the writing thread, as everything below. Whether there is something to write.
    bool waits() { return !unwritten.empty() || takeNext(); }
    // Of the text to be written next.
    std::uint64_t number() const { return numberOfText; }
    int descriptor() const { return fd; }
    // Writes what the stream takes; whether that was the rest of a line. The stream must be ready.
    bool writeSome() {
        const ssize_t written = ::write(fd, unwritten.data(), unwritten.size());
        if (written == -1 && (errno == EINTR || errno == EAGAIN)) {
            return false;
        }
        // A stream that is closed takes nothing ever again.
        unwritten.erase(0, written == -1 ? unwritten.size() : static_cast<std::size_t>(written));
        return unwritten.empty() && std::exchange(textIsLine, false);
    }

  private:
    bool takeNext() {
        if (taken == appended.load(std::memory_order_acquire)) {
            const unsigned lost = dropped.exchange(0);
            unwritten = lost == 0 ? std::string() : noteOfDropped(lost);
            return lost != 0;
        }
        Line& line = lines[taken % kMostLinesWaiting];
        unwritten = (line.droppedBefore == 0 ? std::string() : noteOfDropped(line.droppedBefore)) +
                    line.text;
        numberOfText = line.number;
        textIsLine = true;
        line.text.clear();
        ++taken;
        return true;
    }

    const int fd;
    std::array<Line, kMostLinesWaiting> lines;
    std::atomic<unsigned> appended{0};
    std::atomic<unsigned> dropped{0};
    unsigned taken = 0;
    std::string unwritten;
    std::uint64_t numberOfText = 0;
    bool textIsLine = false;
};

// Both streams and the thread that writes them, in the order of the lines as long as both take
// some. Lives until the process ends.
class WritingThread {
  public:
    WritingThread() : wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        std::thread([this] { run(); }).detach();
    }

    void append(std::ostream& stream, const std::string& text) {
        WaitingLines& lines = &stream == &std::cout ? out : err;
        if (handedOver - written.load() < kMostLinesWaiting) {
            lines.append(text, handedOver);
            ++handedOver;
        } else {
            lines.drop();
        }
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t told = ::write(wake, &one, sizeof one);
    }

    void waitUntilWritten(std::chrono::milliseconds atMost) {
        const std::uint64_t wanted = handedOver;
        const auto end = Clock::now() + atMost;
        while (written < wanted && Clock::now() < end) {
            poll(nullptr, 0, 1);
        }
    }

  private:
    [[noreturn]] void run() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);  // the application's threads get its signals
        while (true) {
            writeNext();
        }
    }

    // Waits until a stream with waiting lines takes something, and writes the older line.
    void writeNext() {
        const bool outWaits = out.waits();
        const bool errWaits = err.waits();
        pollfd ready[] = {{wake, POLLIN, 0},
                          {outWaits ? out.descriptor() : -1, POLLOUT, 0},
                          {errWaits ? err.descriptor() : -1, POLLOUT, 0}};
        poll(ready, std::size(ready), -1);
        std::uint64_t wakings = 0;
        [[maybe_unused]] const ssize_t seen = read(wake, &wakings, sizeof wakings);
        const bool outReady = ready[1].revents != 0;
        const bool errReady = ready[2].revents != 0;
        if (outReady && (!errReady || out.number() < err.number())) {
            written += out.writeSome() ? 1 : 0;
        } else if (errReady) {
            written += err.writeSome() ? 1 : 0;
        }
    }

    const int wake;
    WaitingLines out{STDOUT_FILENO};
    WaitingLines err{STDERR_FILENO};
    std::atomic<std::uint64_t> handedOver{0};
    std::atomic<std::uint64_t> written{0};
};

std::atomic<WritingThread*> writer{nullptr};
thread_local bool handsOver = false;

}  // namespace

void handOverLinesOfThisThread() {
    try {
        writer = new WritingThread;
    } catch (const std::system_error&) {
        return;
    }
    handsOver = true;
    std::atexit([] { waitUntilWritten(kTimeToEnd); });
}

void write(std::ostream& stream, const std::string& text, bool flush) {
    if (handsOver) {
        writer.load()->append(stream, text);
        return;
    }
    stream << text;
    if (flush) {
        stream << std::flush;
    }
}

void waitUntilWritten(std::chrono::milliseconds atMost) {
    if (WritingThread* const thread = writer) {
        thread->waitUntilWritten(atMost);
    }
}

void tellLast(const char* what, const char* reason) noexcept {
    waitUntilWritten(kTimeToEnd);
    char text[256];
    const int length = std::snprintf(text, sizeof text, "dspcard: %s: %s\n", what, reason);
    pollfd ready = {STDERR_FILENO, POLLOUT, 0};
    if (length > 0 && poll(&ready, 1, static_cast<int>(kTimeToEnd.count())) == 1) {
        const auto count = std::min(static_cast<std::size_t>(length), sizeof text - 1);
        [[maybe_unused]] const ssize_t told = ::write(STDERR_FILENO, text, count);
    }
}

}  // namespace console
