// Tells a trace in the words of the cards: what each access means follows from those before it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "cards/BootStream.h"
#include "cards/CardMemory.h"
#include "format/Record.h"
#include "show/Facts.h"
#include "show/Line.h"

namespace cardtrace {

class Story {
  public:
    struct Options {
        bool all = false;       // a line for each access, nothing put together
        int card = -1;          // of one card only; -1: of both, and what belongs to none
        unsigned topics = ~0u;  // a bit for each
        std::uint64_t from_us = 0;
        std::uint64_t to_us = ~std::uint64_t{0};
    };
    using Teller = std::function<void(const Line& line)>;

    Story(const Options& which, const Teller& told) : options(which), teller(told) {}

    void tell(const Record& record);
    // After the last record.
    void end();
    const Facts& facts() const { return whole; }

  private:
    enum class State { kUnknown, kHeld, kBooting, kRunning };
    enum class Wait { kNothing, kForWish, kForTaking };

    struct Missed {  // transfers, by a jump of the counter
        std::uint32_t first = 0;
        std::uint32_t count = 0;
        bool isAfterBoot = false;
    };

    struct CardStory {
        State state = State::kUnknown;
        std::uint32_t control = 0;  // written last
        std::uint32_t resetRegister = 0;
        std::uint32_t data = 0;
        BootStream stream;
        std::string blockName;
        int namedBlock = -1;
        Wait wait = Wait::kNothing;
        std::uint64_t reads = 0;  // of the status while it waits
        std::uint64_t waitBegan_us = 0;
        bool handedOver[2] = {};
        bool waitsForCounter[2] = {};
        bool knowsCounter = false;
        std::uint32_t counter = 0;
        std::deque<Missed> missed;     // by the last few jumps
        std::uint64_t started_us = 0;  // its firmware; 0: not in this trace
        std::uint64_t nothingSince_us = 0;
        std::uint64_t looksInVain = 0;  // since then
        std::uint64_t handedOver_us[2] = {};
        std::uint64_t lastLook_us = 0;  // at either buffer
        bool hasLooked = false;
        std::uint64_t lookedAt_us[2] = {};  // 0: not since the last reset
        std::string fromHost[2];            // what the host had put into each at the last release
    };

    Line line(const Record& record, int card, Topic topic, const std::string& text) const;
    void access(const Record& record);
    void read(const Record& record, int card, std::uint16_t offset);
    void write(const Record& record, int card, std::uint16_t offset);
    void call(const Record& record);
    void noteFailure(const std::string& what);
    void sleep(const Record& record);
    void buffers(const Record& record);

    void readStatus(const Record& record, int card, int buffer);
    void readBootStatus(const Record& record, int card);
    void readData(const Record& record, int card);
    void readLines(const Record& record, int card, int word);
    void control(const Record& record, int card);
    void startBoot(const Record& record, int card);
    void endStrobe(const Record& record, int card);
    std::string tellBootByte(const Record& record, int card, std::uint8_t byte);
    void nameBlock(int card);
    void noteBlock(int card);
    void stopWaiting(const Record& record, int card, bool isRead);
    void handOver(const Record& record, int card, int buffer);
    void release(const Record& record, int card, int buffer);
    void noteLook(const Record& record, int card);
    void noteGap(const Record& record, int card);
    void noteNothing(const Record& record, int card);
    std::string placeOf(int card) const;
    std::string fromDsp(const Record& record, int buffer, int card);
    std::string judgeCounter(const Record& record, std::uint32_t counter, int card);
    std::string fromHost(const Record& record, int buffer, int card);

    void say(Line said);
    void flush(bool everything);
    bool isWanted(const Line& said) const;

    const Options options;
    const Teller teller;
    CardStory cards[2];
    KindsSeen kinds;
    std::string lastFile;
    Facts whole;
    std::deque<Line> waiting;
};

}  // namespace cardtrace
