#include "show/Line.h"

#include <algorithm>
#include <cstdio>

namespace cardtrace {

namespace {

std::string number(std::uint64_t count, const char* one, const char* many) {
    return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

std::string readsOf(const Line& line) {
    if (line.fewestReads == line.mostReads) {
        return number(line.fewestReads, "read", "reads");
    }
    return std::to_string(line.fewestReads) + " to " + number(line.mostReads, "read", "reads");
}

std::string idleText(const Line& line) {
    std::string text;
    for (const int card : {0, 1}) {
        if (line.looks[card] != 0) {
            text += (text.empty() ? "" : ", ") + number(line.looks[card], "look", "looks") +
                    " at card " + std::to_string(card);
        }
    }
    text += text.empty() ? "" : ": nothing handed over";
    if (line.sleeps != 0) {
        char mean[32];
        std::snprintf(mean, sizeof(mean), "%.6g ms",
                      static_cast<double>(line.slept_us) / static_cast<double>(line.sleeps) / 1e3);
        text += (text.empty() ? "" : "; ") + number(line.sleeps, "sleep", "sleeps") + " of " + mean;
    }
    return text;
}

}  // namespace

void putTogether(Line& line, const Line& next) {
    line.times += next.times;
    line.last = next.last;
    line.fewestReads = std::min(line.fewestReads, next.fewestReads);
    line.mostReads = std::max(line.mostReads, next.mostReads);
    for (const int card : {0, 1}) {
        line.looks[card] += next.looks[card];
    }
    line.sleeps += next.sleeps;
    line.slept_us += next.slept_us;
    line.card = line.card == next.card ? line.card : -1;
}

std::string textOf(const Line& line) {
    const std::string card = line.card == -1 ? "" : "card " + std::to_string(line.card) + ' ';
    if (line.sleeps != 0 || line.looks[0] + line.looks[1] != 0) {
        return idleText(line);
    }
    if (line.times == 1 || line.first == 0) {
        return card + line.text +
               (line.times == 1 ? "" : ", " + std::to_string(line.times) + " times");
    }
    // "boot byte 1 of VECT4.BIN <- 0x12, taken after 2 reads", from the first to the last.
    const std::size_t of = line.text.find(" of ");
    const std::size_t value = line.text.find(" <-");
    return card + "boot bytes " + std::to_string(line.first) + " to " + std::to_string(line.last) +
           line.text.substr(of, value - of) + ", each taken after " + readsOf(line);
}

}  // namespace cardtrace
