#include "replay/ScriptFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "format/TraceReader.h"
#include "replay/Script.h"

namespace cardtrace {

namespace {

void append(std::string& script, const Record& record, std::uint64_t number) {
    ScriptRecord header{};
    header.time_us = record.time_us;
    header.number = number;
    header.value = record.value;
    header.dataLength = static_cast<std::uint32_t>(record.data.size());
    header.port = record.port;
    header.flags = record.flags;
    header.kind = record.kind;
    header.width = record.width;
    const std::size_t begin = script.size();
    script.append(reinterpret_cast<const char*>(&header), sizeof(header));
    script.append(record.data);
    script.resize(begin + scriptLength(record.data.size()), '\0');
}

void writeAll(int file, const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t written = write(file, bytes.data() + done, bytes.size() - done);
        if (written == -1 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "memory for the trace");
        }
        done += written == -1 ? 0 : static_cast<std::size_t>(written);
    }
}

}  // namespace

ScriptFile makeScript(const std::string& tracePath) {
    constexpr std::size_t kChunk = std::size_t{1} << 20;
    constexpr std::uint64_t kMostBytes = std::uint64_t{2} << 30;
    TraceReader reader(tracePath);
    ScriptFile made;
    made.file = memfd_create("card-script", MFD_CLOEXEC);
    std::string chunk;
    std::uint64_t length = 0;
    std::uint64_t number = 0;
    for (Record record; made.stoppedBy.empty() && reader.next(record);) {
        if (reader.isAfterGap() && number == 0) {
            throw std::runtime_error(tracePath + ": the beginning of the trace is missing");
        }
        if (reader.isAfterGap()) {
            made.stoppedBy = "records are missing after record " + std::to_string(number);
            break;
        }
        if (length > kMostBytes) {
            made.stoppedBy = "no more than its first 2 GB can be replayed";
            break;
        }
        ++number;
        if (record.isUnanswered()) {
            continue;  // no cards were met
        }
        append(chunk, record, number);
        made.accesses += record.isAccess() ? 1 : 0;
        if (chunk.size() >= kChunk) {
            writeAll(made.file, chunk);
            length += chunk.size();
            chunk.clear();
        }
    }
    writeAll(made.file, chunk);
    if (made.stoppedBy.empty() && !reader.troubles().empty()) {
        made.stoppedBy = reader.troubles().front();
    }
    return made;
}

}  // namespace cardtrace
