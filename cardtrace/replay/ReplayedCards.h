// The cards of a trace, met again: they answer as they did, as long as the program does what the
// recorded host did. Behind the traps; on whatever threads of the program.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "cards/CardMemory.h"
#include "replay/Deviation.h"
#include "replay/Script.h"
#include "traps/Hardware.h"

namespace cardtrace {

class ReplayedCards : public cardsim::Hardware {
  public:
    struct Surroundings {
        volatile std::uint16_t* memory;  // of both cards
        bool virtualTime;                // else the program's sleeps are real
        std::string memoryPath;
        std::uint64_t* elapsed_us;  // becomes the time of the record that was met last
        std::uint64_t* accesses;    // counts them, of all processes that have met the cards
        // The program did something else, or the trace has come to its end; on the program's
        // thread. Must not return.
        std::function<void(const Deviation&)> onDeviation;
        std::function<void()> onEnd;
    };

    ReplayedCards(const Script& script, const Surroundings& outside);

    std::uint32_t in(std::uint16_t port, int bytes) override;
    void out(std::uint16_t port, int bytes, std::uint32_t value) override;
    bool readByte(std::uint16_t port, std::uint8_t& byte) override;
    bool writeByte(std::uint16_t port, std::uint8_t byte) override;
    int grantPorts() override;
    int openPorts() override { return answerAs(Kind::kOpenPorts); }
    std::string memoryPath() override;
    int permits(const cardsim::DeviceCall& call) override;
    void noticed(const cardsim::DeviceCall& call, int error) override;
    bool sleep(std::uint64_t microseconds) override;
    bool processorTime(std::clock_t& ticks) override;

  protected:
    // Whether this process has the cards; asked under a lock at each access.
    virtual bool hasCards() { return true; }

  private:
    static constexpr std::uint64_t kLongWait = 100;  // reads of the same

    struct Access {
        Kind kind;
        std::uint16_t port;
        int bytes;
        std::uint32_t value;
    };

    bool begin();
    const ScriptRecord* meet(const Access& access);
    bool isExtraRead(const Access& access) const;
    void skipRestOfWait(const Access& access);
    bool isSameRead(const ScriptRecord& record) const;
    void skipUnmatched();
    bool matches(const ScriptRecord& record, const Access& access) const;
    void showBuffer(const ScriptRecord& read);
    const ScriptRecord* buffersOfRelease(const ScriptRecord* from, int slot, int buffer) const;
    void checkWritten(const ScriptRecord& buffers, const ScriptRecord& release);
    void checkWords(const ScriptRecord& buffers, int slot, int first, int count, const char* what);
    int answerAs(Kind kind);
    const ScriptRecord* nextCall(Kind kind);
    void wait(std::uint64_t time_us) const;
    [[noreturn]] void deviate(const std::string& what);
    [[noreturn]] void end();

    const Script script;
    const Surroundings surroundings;
    const std::uint64_t started_us;
    std::recursive_mutex lock;
    const ScriptRecord* current;                    // to be met next
    const ScriptRecord* calls[kLastKind + 1] = {};  // where to look for the next call of a kind
    const ScriptRecord* lastBuffers = nullptr;
    ScriptRecord lastRead{};
    std::uint64_t sameReads = 0;
    bool hasBegun = false;
    KindsSeen kinds;
};

}  // namespace cardtrace
