#include "recorder/Recording.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <new>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

namespace cardtrace {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A power cut costs no more than what came since the last time.
constexpr milliseconds kSyncInterval{1000};
constexpr milliseconds kPause{5};

int makeRingFile() {
    const int file = memfd_create("card-records", MFD_CLOEXEC);
    if (file == -1 || ftruncate(file, sizeof(RecordRing)) != 0) {
        throw std::system_error(errno, std::generic_category(), "memory for records");
    }
    return file;
}

std::string complete(const std::string& about, const Recording::Options& options) {
    nlohmann::ordered_json text = nlohmann::ordered_json::parse(about);
    text["began"] = std::chrono::duration_cast<milliseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
    text["audio"] = !options.withoutAudio;
    text["numbers"] = !options.withoutNumbers;
    return text.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace

Recording::Recording(const Options& options, const std::string& about)
    : file(makeRingFile()),
      writer(options.path, complete(about, options), options.mostBytes),
      discretion(options.withoutAudio, options.withoutNumbers) {
    void* const address =
        mmap(nullptr, sizeof(RecordRing), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (address == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "memory for records");
    }
    ring = new (address) RecordRing;
}

Recording::~Recording() {
    stops = true;
    if (thread.joinable()) {
        thread.join();
    }
    munmap(ring, sizeof(RecordRing));
    close(file);
}

std::string Recording::ringPath() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file);
}

void Recording::start() {
    thread = std::thread([this] { writeUntilStopped(); });
}

void Recording::finish(int exitStatus) {
    stops = true;
    thread.join();
    ring->close();
    Record end;
    end.kind = Kind::kEnd;
    end.value = static_cast<std::uint32_t>(exitStatus);
    end.time_us = lastTime;
    keep([this, &end] {
        writer.add(end);
        writer.sync();
    });
}

void Recording::writeUntilStopped() {
    auto synced = Clock::now();
    while (true) {
        const bool isLast = stops;  // the program has ended before: all it put in is there
        const bool foundSome = writeWhatThereIs();
        if (isLast) {
            return;
        }
        if (Clock::now() - synced >= kSyncInterval) {
            keep([this] { writer.sync(); });
            synced = Clock::now();
        }
        if (!foundSome) {
            std::this_thread::sleep_for(kPause);
        }
    }
}

bool Recording::writeWhatThereIs() {
    bool found = false;
    Record record;
    while (takeNext(record)) {
        found = true;
        touched = touched || record.isAccess() || (record.isCall() && record.kind != Kind::kSleep);
        keep([this, &record] {
            discretion.apply(record);
            lastTime = record.time_us;
            writer.add(record);
        });
    }
    if (ring->endLoss()) {
        tell("was held up for too long: records are missing in the trace");
        keep([this] { writer.leaveGap(); });
    }
    return found;
}

bool Recording::takeNext(Record& record) {
    bool taken = false;
    try {
        taken = !isSpoilt && ring->take(record);
    } catch (const std::exception& error) {
        isSpoilt = true;
        ring->close();
        tell(std::string(error.what()) + ": nothing more is recorded");
    }
    return taken;
}

// Records are taken even when they cannot be written: the program must not wait for that. There may
// be room again later.
template <class Keep>
void Recording::keep(Keep write) {
    try {
        write();
        if (isMissing && !writer.isFailing()) {
            isMissing = false;
            tell("the trace is written again; what came meanwhile is missing");
        }
    } catch (const std::exception& error) {
        if (!std::exchange(isMissing, true)) {
            tell(std::string(error.what()) + ": what comes now is missing in the trace");
        }
    }
}

void Recording::tell(const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
}

}  // namespace cardtrace
