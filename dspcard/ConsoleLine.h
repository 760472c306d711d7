// One line for the console, collected piece by piece and written whole, line end and flush
// included, so that the lines of the runner thread and of the client's threads do not mix.
#pragma once

#include <ptypes.h>

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
