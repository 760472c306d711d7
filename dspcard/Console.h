// The way of lines to standard output and standard error.
//
// A console may stop taking lines: a terminal stopped by Ctrl-S, a pipe that nobody reads. The
// thread that serves the cards must not wait for it, so it can hand its lines to a writing thread
// through a bounded buffer. What other threads print, they write themselves, and wait.
#pragma once

#include <chrono>
#include <ostream>
#include <string>

namespace console {

// How many lines may wait for the writing thread. All that the boot of two cards prints fits, with
// hundreds of sections each: a boot takes the processor whole, so nothing may be written before its
// end, and the line that tells why it failed is the last.
constexpr unsigned kMostLinesWaiting = 4096;

// From now on the lines that the calling thread prints go to the writing thread, which this starts.
// For one thread in a process, once. Each stream gets its lines whole and in order; when too many
// wait, the newest are dropped, and one line in their place says how many as soon as there is room.
// At the end of the process what waits is still written, for at most a second. Without a thread to
// be had, nothing changes.
void handOverLinesOfThisThread();

// Writes text, which ends in a newline, to std::cout or std::cerr, or hands it over.
void write(std::ostream& stream, const std::string& text, bool flush);

// Waits until all that has been handed over so far is written, but no longer than that.
void waitUntilWritten(std::chrono::milliseconds atMost);

// One last line on standard error, "dspcard: " and the two texts, by a process that is about to
// end and may have no memory left: what waits is written before, all for at most two seconds.
void tellLast(const char* what, const char* reason) noexcept;

}  // namespace console
