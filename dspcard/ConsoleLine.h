// One line for the console, collected piece by piece and written whole, line end and flush
// included, so that the lines of the runner thread and of the client's threads do not mix.
#pragma once

#include <ptypes.h>

#include <cerrno>
#include <iostream>
#include <ostream>
#include <sstream>

class ConsoleLine {
  public:
    explicit ConsoleLine(std::ostream& stream) : out(stream) {}
    ~ConsoleLine() { out << text.str() + '\n' << std::flush; }
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
    std::ostringstream text;
};

// A line on standard error: the text, and the number of the error that the last call left.
inline void reportErrno(const char* text) {
    const int number = errno;
    ConsoleLine(std::cerr) << text << number;
}
