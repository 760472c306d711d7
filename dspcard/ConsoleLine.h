// One line for the console, collected piece by piece and written whole, so that the lines of the
// runner thread and of the client's threads do not mix. For any thread: the runner thread hands its
// lines to a thread that writes them, every other thread writes for itself (see Console.h).
// Numbers read the same in every locale of the process.
#pragma once

#include <ptypes.h>

#include <cerrno>
#include <iostream>
#include <ostream>
#include <sstream>

#include "Console.h"

class ConsoleLine {
  public:
    enum Ending { kFlushed, kUnflushed };

    // stream: std::cout or std::cerr.
    explicit ConsoleLine(std::ostream& stream, Ending lineEnding = kFlushed)
        : out(stream), ending(lineEnding) {
        text.imbue(std::locale::classic());
    }
    // Writes the line, its end included, or hands it on. Without memory the line is lost; whoever
    // needs memory next will tell.
    ~ConsoleLine() {
        try {
            text << '\n';
            console::write(out, text.str(), ending == kFlushed);
        } catch (...) {  // NOLINT(bugprone-empty-catch)
        }
    }
    ConsoleLine(const ConsoleLine&) = delete;
    ConsoleLine& operator=(const ConsoleLine&) = delete;

    template <typename Piece>
    ConsoleLine& operator<<(const Piece& piece) {
        text << piece;
        return *this;
    }
    ConsoleLine& operator<<(const pt::string& piece) {
        text.write(piece, pt::length(piece));
        return *this;
    }

  private:
    std::ostream& out;
    const Ending ending;
    std::ostringstream text;
};

// A line on standard error: the text, and the number of the error that the last call left.
inline void reportErrno(const char* text) {
    const int number = errno;
    ConsoleLine(std::cerr) << text << number;
}
