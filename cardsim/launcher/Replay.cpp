#include "launcher/Replay.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "format/TraceReader.h"
#include "show/Story.h"

namespace cardsim {

namespace {

using cardtrace::Line;
using cardtrace::Record;

constexpr std::uint64_t kShownBefore = 5;
constexpr std::uint64_t kShownBehind = 3;

}  // namespace

Replay::Replay(const std::string& trace) : name(trace), script(cardtrace::makeScript(trace)) {}

Replay::~Replay() {
    close(script.file);
}

std::string Replay::path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(script.file);
}

std::string Replay::banner(bool virtualTime) const {
    return "cardsim: replayed: the cards of " + name + ", " + std::to_string(script.accesses) +
           " accesses" + (virtualTime ? "; in virtual time" : "") + '\n' +
           (script.stoppedBy.empty()
                ? ""
                : "cardsim: " + name + ": only its beginning: " + script.stoppedBy + '\n');
}

int Replay::tellEnd(const SharedPage& page, int exitStatus) const {
    const std::string met = std::to_string(page.accessesReplayed) + " of " +
                            std::to_string(script.accesses) + " accesses";
    if (page.replayEnd == ReplayEnd::kDeviation) {
        std::cerr << "cardsim: after " << met << " the program " << page.deviation.text
                  << ", where the trace goes on with record " << page.deviation.record << ":\n";
        tellAround(page.deviation.record);
        return kDeviated;
    }
    if (page.replayEnd == ReplayEnd::kWithProgram && page.accessesReplayed < script.accesses) {
        std::cerr << "cardsim: the program ended after " << met << '\n';
        return exitStatus == 0 ? kDeviated : exitStatus;
    }
    std::cerr << "cardsim: replayed to the end, " << met << ", 0 deviations\n";
    return exitStatus;
}

void Replay::tellAround(std::uint64_t expected) const {
    cardtrace::Story::Options options;
    options.all = true;
    cardtrace::Story story(options, [=](const Line& line) {
        if (line.record + kShownBefore >= expected && line.record <= expected + kShownBehind) {
            std::fprintf(stderr, "  %s %8llu %12.6f  %s\n", line.record == expected ? ">" : " ",
                         static_cast<unsigned long long>(line.record),
                         static_cast<double>(line.time_us) / 1e6, textOf(line).c_str());
        }
    });
    cardtrace::TraceReader reader(name);
    std::uint64_t number = 0;
    for (Record record; number < expected + kShownBehind && reader.next(record); ++number) {
        story.tell(record);
    }
    story.end();
}

}  // namespace cardsim
