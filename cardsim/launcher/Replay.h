// The cards of a trace, for a program to meet again: what the launcher has to do for that.
#pragma once

#include <string>

#include "config/SharedPage.h"
#include "replay/ScriptFile.h"

namespace cardsim {

class Replay {
  public:
    // The exit status when the program did something else than the recorded one.
    static constexpr int kDeviated = 125;

    // Throws std::exception when the trace cannot be replayed from its beginning.
    explicit Replay(const std::string& trace);
    ~Replay();
    Replay(const Replay&) = delete;
    Replay& operator=(const Replay&) = delete;

    // By which the preload library finds the script.
    std::string path() const;
    std::string banner(bool virtualTime) const;
    // Tells on standard error how the run has ended, with what was expected around the place where
    // the program did something else; the launcher's exit status.
    int tellEnd(const SharedPage& page, int exitStatus) const;

  private:
    void tellAround(std::uint64_t expected) const;

    const std::string name;
    const cardtrace::ScriptFile script;
};

}  // namespace cardsim
