// The launcher's side of a recording: takes what the program's processes put into the ring and
// writes it into the file, on a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "cards/Discretion.h"
#include "format/TraceWriter.h"
#include "ring/RecordRing.h"

namespace cardtrace {

class Recording {
  public:
    struct Options {
        std::string path;             // empty: nothing is recorded
        std::uint64_t mostBytes = 0;  // see TraceWriter
        bool withoutAudio = false;
        bool withoutNumbers = false;
    };
    static constexpr std::uint64_t kLeastBytes =
        TraceWriter::kLeastBytes + sizeof(fileLayout::FileHeader) + fileLayout::kMaxAbout;

    // Makes the file. about: a JSON object that says what the trace is of; the time and the options
    // are added. Throws std::exception.
    Recording(const Options& options, const std::string& about);
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    // By which any process finds the ring, as long as the launcher lives.
    std::string ringPath() const;
    // Begins to write; to be called once the program has been started, since it starts a thread.
    void start();
    // The program has ended: writes what there still is. When not all can be written, now or
    // before, a line on standard error tells it at that moment.
    void finish(int exitStatus);
    // Afterwards: whether the program has touched ports or their devices at all.
    bool hasTouchedDevices() const { return touched; }

  private:
    void writeUntilStopped();
    bool writeWhatThereIs();
    bool takeNext(Record& record);
    template <class Keep>
    void keep(Keep write);
    static void tell(const std::string& what);

    const int file;
    RecordRing* ring = nullptr;
    TraceWriter writer;
    Discretion discretion;
    std::uint64_t lastTime = 0;
    bool isMissing = false;  // what came last, since it cannot be written
    bool isSpoilt = false;   // the ring, by the program
    bool touched = false;
    std::atomic<bool> stops{false};
    std::thread thread;
};

}  // namespace cardtrace
