// Gives the host's accesses of a trace to simulated cards and notes where those would have answered
// otherwise.
//
// A trace of simulated cards says how they were configured: then the same ones are made again, and
// every answer must be the same. Of real cards it is known only what the trace shows. So their
// lines are what the buffers say, and the simulated DSP takes its turns when the trace shows that
// the real one did; everything else has to follow from that.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cards/CardMemory.h"
#include "compare/Harmless.h"
#include "config/Configuration.h"
#include "format/TraceReader.h"
#include "model/Cards.h"

namespace cardtrace {

struct Difference {
    std::uint64_t record = 0;  // number, from 1
    std::uint64_t time_us = 0;
    std::string kind;
    std::string text;
};

struct ComparisonResult {
    std::uint64_t accesses = 0;
    std::optional<Difference> first;
    std::map<std::string, std::uint64_t> differences;  // by kind
    std::map<std::string, std::uint64_t> harmless;     // by name
    std::string stoppedBy;  // why not all of the trace was compared; empty: it was
};

// Of the simulated cards that a trace is of, by what its file says; nothing when it is of others.
// Throws std::exception when there are no such cards.
std::optional<cardsim::Configuration> configurationIn(const std::string& about);

class Comparison {
  public:
    struct Options {
        // Of the simulated cards of the trace; nothing: they are made after what the trace shows.
        std::optional<cardsim::Configuration> configuration;
        // Channels of the cards by slot; 0: none. For cards without a configuration.
        int channels[2] = {};
        std::vector<Harmless> strict;  // counts as a difference
    };

    // reader: from the first record on.
    Comparison(TraceReader& reader, const Options& options);
    ~Comparison();

    ComparisonResult run();

  private:
    struct Model;
    struct Slot {
        bool isShown[2] = {};     // the trace shows that the buffer is handed over
        bool isAnswered[2] = {};  // the simulated card says so
        std::uint32_t turns = 0;  // since the firmware started
        std::uint32_t boots = 0;
        bool isBooting = false;          // from a reset until its firmware starts
        std::uint64_t lastSign_us = 0;   // of life
        std::uint64_t looksInVain = 0;   // since then
        bool isSilent = false;           // told already
        std::uint64_t waitingSince = 0;  // record of a handshake that the card is slow at, or 0
        std::uint64_t waitingTime_us = 0;
        std::string waitingText;
        std::uint64_t lastLoud_us[cardsim::kMaxLines] = {};
        bool wasLoud[cardsim::kMaxLines] = {};
        std::uint32_t firstCounter = 0, lastCounter = 0;
        std::uint64_t firstSeen_us = 0, lastSeen_us = 0;
    };

    void makeModel(std::uint64_t now);
    bool nextRecord(Record& record);
    const Record* ahead(std::size_t index);
    const Record* nextBuffers(int slot, int buffer, std::size_t& from);

    void compareIn(const Record& record);
    void give(const Record& record);
    void compareBuffers(const Record& record);
    void compareBuffer(const Record& record, int slot, int buffer, const cardsim::CardKind& kind);
    void compareText(const Record& record, const std::string& which, const std::string& shown,
                     const std::string& simulated);
    void compareAudio(const Record& record, int slot, int line, std::size_t offset,
                      std::size_t length);
    void compareVoice(const Record& record, int slot, int line, const BufferView& shown,
                      const BufferView& simulated);
    void noteLoudness(const BufferView& shown, int slot, const cardsim::CardKind& kind,
                      std::uint64_t time_us);
    bool mayDifferInTime(int slot, int line, std::uint64_t time_us, bool isShownActive) const;
    void judgeHandshake(const Record& record, int slot, std::uint32_t simulated);
    void endHandshake(int slot);
    void comparePeriods();
    void noteSign(const Record& record, int slot);
    void compareSilence(const Record& record, int slot);

    void prepareStatus(const Record& record, int slot, int buffer);
    void prepareLines(const Record& record, int slot, int word);
    void prepareRelease(const Record& record, int slot, int buffer);
    void turnTo(std::uint32_t counter, int slot, std::uint64_t time_us);
    void setLines(const Record& buffers, int buffer, int slot, std::uint64_t time_us);

    void differ(const Record& record, const std::string& kind, const std::string& text);
    void pass(Harmless kind, const Record& record, const std::string& text);
    bool isStrict(Harmless kind) const;

    TraceReader& reader;
    const Options options;
    std::unique_ptr<Model> model;
    std::uint64_t modelStart_us = 0;
    std::deque<Record> waiting;
    std::deque<bool> gaps;
    std::size_t bytesWaiting = 0;  // of their data
    std::uint64_t number = 0;
    Slot slots[2];
    ComparisonResult result;
};

}  // namespace cardtrace
