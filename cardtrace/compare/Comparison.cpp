#include "compare/Comparison.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <utility>

#include "format/About.h"
#include "format/Checksum.h"
#include "model/PortMap.h"
#include "model/Scenario.h"
#include "model/Traffic.h"

namespace cardtrace {

namespace {

namespace layout = cardsim::layout;
namespace portMap = cardsim::portMap;
using cardsim::CardKind;

constexpr std::size_t kMostAhead = 100'000;
constexpr std::size_t kMostBytesAhead = std::size_t{64} << 20;
constexpr std::uint32_t kMostTurns = 100'000;
constexpr std::uint64_t kLongestPause_us = 86'400'000'000;
constexpr double kPeriodTolerance = 0.02;

std::string hexadecimal(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%X", value);
    return text;
}

std::uint32_t maskOf(int bytes) {
    return bytes == 1 ? 0xFF : bytes == 2 ? 0xFFFF : 0xFFFFFFFF;
}

// The bits of a register that mean something.
std::uint32_t definedBits(std::uint16_t offset, const CardKind* kind) {
    if (kind == nullptr) {
        return ~0u;
    }
    if (offset == portMap::kControl || offset == portMap::kBuffer1) {
        return ~std::uint32_t{portMap::kUndefinedStatus};
    }
    if (offset == portMap::kData) {
        return 0xFF;
    }
    if (offset == portMap::kReset) {
        return 0;
    }
    std::uint32_t defined = 0;
    const cardsim::LineStatusLayout& bits = kind->lineStatus;
    for (int i = 0; i < bits.linesOfWord; ++i) {
        defined |= static_cast<std::uint32_t>(bits.onHook | bits.offHook | bits.triggered)
                   << (i * bits.bitsOfLine);
    }
    return defined;
}

std::string kindOfRegister(std::uint16_t offset) {
    if (offset == portMap::kData) {
        return "data port";
    }
    return offset == portMap::kControl || offset == portMap::kBuffer1 ? "status"
           : offset == portMap::kReset                                ? "reset register"
                                                                      : "line status";
}

std::string cardName(int slot) {
    return "card " + std::to_string(slot) + ' ';
}

}  // namespace

std::optional<cardsim::Configuration> configurationIn(const std::string& about) {
    using Json = nlohmann::json;
    const Json told = readAbout<Json>(about).value("configuration", Json());
    return told.is_object() ? std::optional(cardsim::describedBy(told.dump())) : std::nullopt;
}

// The simulated cards.
struct Comparison::Model {
    Model(const std::optional<cardsim::CardOptions> (&slots)[portMap::kMaxCards])
        : memory(static_cast<std::size_t>(portMap::kMaxCards) * layout::kCardWords),
          cards(slots, memory.data(), report) {}

    // The memory of a card as a trace has it.
    Record memoryOf(int slot) const {
        Record record;
        const auto* const words = memory.data() + slot * layout::kCardWords;
        record.data.assign(reinterpret_cast<const char*>(words), kCardMemoryBytes);
        return record;
    }
    // What the host has written into both buffers: commands and playback audio. The rest is the
    // DSP's own.
    void load(int slot, const Record& buffers) {
        const cardsim::TransferLayout& transfer = kindThere(slot).transfer;
        for (const int buffer : {0, layout::kSecondBuffer}) {
            loadWords(slot, buffers, buffer + transfer.command,
                      transfer.firstPort - transfer.command);
            loadWords(slot, buffers, buffer + transfer.playbackAudio, transfer.audioWords);
        }
    }
    void loadWords(int slot, const Record& buffers, int first, int count) {
        std::memcpy(memory.data() + slot * layout::kCardWords + first,
                    buffers.data.data() + static_cast<std::size_t>(2 * first),
                    static_cast<std::size_t>(2 * count));
    }
    // Of a card that is there.
    const CardKind& kindThere(int slot) { return cardsim::kindOf(cards.card(slot).channels()); }
    const CardKind* kind(int slot) { return cards.isPresent(slot) ? &kindThere(slot) : nullptr; }

    cardsim::MachineReport report{};
    std::vector<std::uint16_t> memory;
    cardsim::Cards cards;
};

Comparison::Comparison(TraceReader& trace, const Options& how) : reader(trace), options(how) {
    makeModel(0);
}

Comparison::~Comparison() = default;

void Comparison::makeModel(std::uint64_t now) {
    std::optional<cardsim::CardOptions> made[portMap::kMaxCards];
    for (int slot = 0; slot < portMap::kMaxCards; ++slot) {
        const int channels = options.configuration ? options.configuration->pc.channels[slot]
                                                   : options.channels[slot];
        if (channels == 0) {
            continue;
        }
        cardsim::CardOptions& card = made[slot].emplace();
        card.channels = channels;
        if (options.configuration) {
            const cardsim::SimulatedPc::Options& pc = options.configuration->pc;
            card.period_us = pc.period_ms * 1000;
            card.audio = pc.audio;
            card.faults = pc.faults;
            card.seed = pc.seed;
        } else {
            card.turnsByHand = true;
        }
    }
    model = std::make_unique<Model>(made);
    modelStart_us = now;
    slots[0] = slots[1] = {};
    if (options.configuration) {
        cardsim::planScenario(model->cards, options.configuration->events);
        if (options.configuration->traffic) {
            cardsim::planTraffic(model->cards, options.configuration->pc.seed);
        }
    }
}

ComparisonResult Comparison::run() {
    Record record;
    std::uint64_t before_us = 0;
    while (result.stoppedBy.empty() && nextRecord(record)) {
        const std::uint64_t time_us = record.time_us;
        if (time_us < before_us || time_us - before_us > kLongestPause_us) {
            result.stoppedBy = "the time of record " + std::to_string(number) + " makes no sense";
            break;
        }
        before_us = time_us;
        if (record.kind == Kind::kCards) {
            makeModel(record.time_us);
        } else if (record.kind == Kind::kBuffers) {
            compareBuffers(record);
        } else if (record.isAccess() && !record.failed() && !record.isUnanswered()) {
            ++result.accesses;
            if (record.isRead()) {
                compareIn(record);
            } else {
                give(record);
            }
        }
    }
    for (const int slot : {0, 1}) {
        endHandshake(slot);
    }
    comparePeriods();
    return std::move(result);
}

bool Comparison::nextRecord(Record& record) {
    if (ahead(0) == nullptr) {
        return false;
    }
    if (gaps.front()) {
        result.stoppedBy = number == 0
                               ? "the beginning of the trace is missing"
                               : "records are missing after record " + std::to_string(number);
        return false;
    }
    record = std::move(waiting.front());
    bytesWaiting -= record.data.size();
    waiting.pop_front();
    gaps.pop_front();
    ++number;
    return true;
}

// A record that is still to come; null when there is none, or none so soon.
const Record* Comparison::ahead(std::size_t index) {
    while (waiting.size() <= index && index < kMostAhead && bytesWaiting < kMostBytesAhead) {
        Record next;
        if (!reader.next(next)) {
            return nullptr;
        }
        bytesWaiting += next.data.size();
        waiting.push_back(std::move(next));
        gaps.push_back(reader.isAfterGap());
    }
    return index < waiting.size() ? &waiting[index] : nullptr;
}

// The next buffers of the card, from a record to come on, at which that buffer is released; null
// when there are none. from becomes the record behind.
const Record* Comparison::nextBuffers(int slot, int buffer, std::size_t& from) {
    for (const Record* record = ahead(from); record != nullptr; record = ahead(++from)) {
        if (record->kind != Kind::kBuffers || record->port != slot) {
            continue;
        }
        // What releases it stands right behind.
        const Record* const next = ahead(from + 1);
        const int released =
            next != nullptr && next->port % portMap::kPortsOfCard == portMap::kBuffer1 ? 1 : 0;
        if (released == buffer) {
            return &waiting[from++];
        }
    }
    return nullptr;
}

void Comparison::compareIn(const Record& record) {
    const int slot = portMap::slotOf(record.port);
    if (slot == -1) {
        return;
    }
    const auto offset = static_cast<std::uint16_t>(record.port % portMap::kPortsOfCard & ~1u);
    const CardKind* const kind = model->kind(slot);
    const bool isStatus = offset == portMap::kControl || offset == portMap::kBuffer1;
    const int buffer = offset == portMap::kControl ? 0 : 1;
    if (kind != nullptr && !options.configuration) {
        if (isStatus) {
            prepareStatus(record, slot, buffer);
        } else if (offset >= portMap::kLines && offset < portMap::kReset) {
            prepareLines(record, slot, (offset - portMap::kLines) / 2);
        }
    }
    const std::uint32_t mask = maskOf(record.width);
    const std::uint32_t simulated =
        model->cards.in(record.port, record.width, record.time_us - modelStart_us) & mask;
    if (isStatus) {
        slots[slot].isShown[buffer] = (record.value & portMap::kHandedOver) != 0;
        slots[slot].isAnswered[buffer] = (simulated & portMap::kHandedOver) != 0;
    }
    const std::uint32_t wrong = (record.value ^ simulated) & mask;
    const std::uint32_t defined = definedBits(offset, kind);
    const std::string text = cardName(slot) + kindOfRegister(offset) + " answered " +
                             hexadecimal(record.value) + ", the simulated card " +
                             hexadecimal(simulated);
    if ((wrong & ~defined) != 0) {
        pass(Harmless::kUndefinedBits, record, text);
    }
    const bool isHandshake =
        offset == portMap::kControl && !options.configuration &&
        (wrong & defined & ~std::uint32_t{portMap::kWantsByte | portMap::kByteBusy}) == 0 &&
        slots[slot].isBooting;
    if (isHandshake && kind != nullptr) {
        judgeHandshake(record, slot, simulated);
    } else if ((wrong & defined) != 0) {
        differ(record, kindOfRegister(offset), text);
    }
}

// A card may be slow to ask for a byte, or to take it; whether it was too slow shows when the host
// gives up.
void Comparison::judgeHandshake(const Record& record, int slot, std::uint32_t simulated) {
    Slot& state = slots[slot];
    const std::uint32_t wrong =
        (record.value ^ simulated) & std::uint32_t{portMap::kWantsByte | portMap::kByteBusy};
    if (wrong == 0) {
        if (std::exchange(state.waitingSince, 0) != 0) {
            pass(Harmless::kHandshakeTimes, record, state.waitingText);
        }
    } else if (state.waitingSince == 0) {
        state.waitingSince = number;
        state.waitingTime_us = record.time_us;
        state.waitingText = cardName(slot) + "status answered " + hexadecimal(record.value) +
                            ", the simulated card " + hexadecimal(simulated) +
                            ", until the host gave up";
    }
}

void Comparison::endHandshake(int slot) {
    Slot& state = slots[slot];
    if (state.waitingSince != 0) {
        Record since;
        since.time_us = state.waitingTime_us;
        const std::uint64_t here = std::exchange(number, std::exchange(state.waitingSince, 0));
        differ(since, "handshake", state.waitingText);
        number = here;
    }
}

void Comparison::give(const Record& record) {
    const int slot = portMap::slotOf(record.port);
    if (slot == -1) {
        return;
    }
    endHandshake(slot);
    const std::uint16_t offset = record.port % portMap::kPortsOfCard;
    if (record.value == portMap::kRun &&
        (offset == portMap::kControl || offset == portMap::kBuffer1)) {
        const int buffer = offset == portMap::kControl ? 0 : 1;
        if (!options.configuration && slots[slot].isShown[buffer]) {
            prepareRelease(record, slot, buffer);
        }
        slots[slot].isShown[buffer] = slots[slot].isAnswered[buffer] = false;
    }
    model->cards.out(record.port, record.width, record.value, record.time_us - modelStart_us);
    Slot& state = slots[slot];
    if (offset == portMap::kControl && record.value == portMap::kStop) {
        state.isBooting = true;
    }
    const std::uint32_t boots = model->report.cards[slot].boots;
    if (boots != std::exchange(state.boots, boots)) {
        state.isBooting = false;
        state.turns = 0;
        state.firstCounter = state.lastCounter = 0;
        noteSign(record, slot);
    }
}

// What the host sees for the first time has happened since it looked last: the DSP takes the turns
// that the counter of the buffer tells of.
void Comparison::prepareStatus(const Record& record, int slot, int buffer) {
    Slot& state = slots[slot];
    const bool isSet = (record.value & portMap::kHandedOver) != 0;
    if (!isSet) {
        compareSilence(record, slot);
    }
    if (!isSet || state.isShown[buffer] || state.boots == 0) {
        return;
    }
    noteSign(record, slot);
    std::size_t from = 0;
    const Record* const released = nextBuffers(slot, buffer, from);
    // A host that was held up finds both buffers, and may take the newer one first.
    const bool isThere = model->cards.card(slot).handsOver(buffer);
    if (released == nullptr) {
        turnTo(state.turns + (isThere ? 0 : 1), slot, record.time_us);
        return;
    }
    const std::uint32_t counter = BufferView(*released, buffer, model->kindThere(slot)).counter();
    const bool makesSense = counter > state.turns && counter - state.turns < kMostTurns;
    turnTo(makesSense ? counter : state.turns + (isThere ? 0 : 1), slot, record.time_us);
    state.lastCounter = counter;
    state.lastSeen_us = record.time_us;
    if (state.firstCounter == 0) {
        state.firstCounter = counter;
        state.firstSeen_us = record.time_us;
    }
}

// Turns of the buffer that went by while the host held it come before its release.
void Comparison::prepareRelease(const Record& record, int slot, int buffer) {
    const Slot& state = slots[slot];
    std::size_t from = 0;
    const Record* const next = nextBuffers(slot, buffer, from);
    if (next == nullptr) {
        return;
    }
    const std::uint32_t counter = BufferView(*next, buffer, model->kindThere(slot)).counter();
    if (counter > state.turns + 2 && counter - state.turns < kMostTurns) {
        turnTo(counter - 2, slot, record.time_us);
    }
}

void Comparison::turnTo(std::uint32_t counter, int slot, std::uint64_t time_us) {
    Slot& state = slots[slot];
    while (state.turns < counter) {
        ++state.turns;
        const int buffer = static_cast<int>((state.turns - 1) % 2);
        std::size_t from = 0;
        const bool goesBy = model->cards.card(slot).handsOver(buffer);
        const Record* const released = goesBy ? nullptr : nextBuffers(slot, buffer, from);
        if (released != nullptr) {
            setLines(*released, buffer, slot, time_us);
        }
        model->cards.card(slot).turn(time_us - modelStart_us);
    }
}

// The lines of the card become what the DSP has written into that buffer.
void Comparison::setLines(const Record& buffers, int buffer, int slot, std::uint64_t time_us) {
    cardsim::Card& card = model->cards.card(slot);
    const BufferView view(buffers, buffer, model->kindThere(slot));
    card.advance(time_us - modelStart_us);
    for (int i = 0; i < card.channels(); ++i) {
        cardsim::Line& line = card.line(i);
        line.setOffHook(view.portWord(i, layout::kOffHook) != 0);
        line.setRinging(view.portWord(i, layout::kRinging) != 0);
        line.setLevel(view.portWord(i, layout::kLevel) & layout::kMaxLevel);
        line.dial(view.digits(i));
        line.callFrom(view.caller(i));
    }
}

// The line status shows lines as they are now, not as they were when the buffer was filled.
void Comparison::prepareLines(const Record& record, int slot, int word) {
    const cardsim::LineStatusLayout& bits = model->kindThere(slot).lineStatus;
    for (int i = 0; i < bits.linesOfWord; ++i) {
        const std::uint32_t status = record.value >> (i * bits.bitsOfLine);
        cardsim::Line& line = model->cards.card(slot).line(word * bits.linesOfWord + i);
        line.setOffHook(bits.offHook != 0 ? (status & bits.offHook) != 0
                                          : (status & bits.onHook) == 0);
    }
}

void Comparison::compareBuffers(const Record& record) {
    const int slot = record.port;
    const CardKind* const kind = model->kind(slot);
    if (kind == nullptr) {
        return;
    }
    for (const int buffer : {0, 1}) {
        if (slots[slot].isShown[buffer] && slots[slot].isAnswered[buffer]) {
            compareBuffer(record, slot, buffer, *kind);
        }
    }
    model->load(slot, record);
}

void Comparison::compareBuffer(const Record& record, int slot, int buffer, const CardKind& kind) {
    const Record simulatedMemory = model->memoryOf(slot);
    const BufferView shown(record, buffer, kind);
    const BufferView simulated(simulatedMemory, buffer, kind);
    const std::string name = cardName(slot) + "buffer " + std::to_string(2 * slot + buffer);
    if (shown.counter() != simulated.counter()) {
        differ(record, "counter",
               name + " has counter " + std::to_string(shown.counter()) + ", the simulated card " +
                   std::to_string(simulated.counter()));
    }
    const bool hidesNumbers = (record.flags & Record::kWithoutNumbers) != 0;
    for (int i = 0; i < kind.channels; ++i) {
        const std::string line = name + " line " + std::to_string(i);
        constexpr std::pair<int, const char*> kWords[] = {{layout::kOffHook, "off hook"},
                                                          {layout::kRinging, "ringing"}};
        for (const auto& [place, what] : kWords) {
            if (shown.portWord(i, place) != simulated.portWord(i, place)) {
                differ(record, what,
                       line + ": " + what + " is " + hexadecimal(shown.portWord(i, place)) +
                           ", the simulated card has " + hexadecimal(simulated.portWord(i, place)));
            }
        }
        compareVoice(record, slot, i, shown, simulated);
        if (!hidesNumbers || !options.configuration) {
            compareText(record, line + ": digits", shown.digits(i), simulated.digits(i));
            compareText(record, line + ": caller", shown.caller(i), simulated.caller(i));
        }
        if (options.configuration) {
            const int word = (buffer == 0 ? 0 : layout::kSecondBuffer) + kind.transfer.firstPort +
                             i * kind.transfer.portWords + kind.transfer.audio;
            compareAudio(record, slot, i, static_cast<std::size_t>(2 * word),
                         static_cast<std::size_t>(2 * kind.transfer.audioWords));
        }
    }
    noteLoudness(shown, slot, kind, record.time_us);
}

void Comparison::compareText(const Record& record, const std::string& which,
                             const std::string& shown, const std::string& simulated) {
    if (shown != simulated) {
        differ(record, which.substr(which.rfind(' ') + 1),
               which + " \"" + printable(shown) + "\", the simulated card has \"" +
                   printable(simulated) + '"');
    }
}

void Comparison::compareAudio(const Record& record, int slot, int line, std::size_t offset,
                              std::size_t length) {
    const Record simulated = model->memoryOf(slot);
    bool isSame = record.data.compare(offset, length, simulated.data, offset, length) == 0;
    if ((record.flags & Record::kWithoutAudio) != 0) {
        const std::uint32_t due = checksum(&simulated.data[offset], length);
        for (std::size_t at = kCardMemoryBytes; at + sizeof(LeftOut) <= record.data.size();
             at += sizeof(LeftOut)) {
            LeftOut left{};
            std::memcpy(&left, &record.data[at], sizeof(left));
            isSame = left.offset == offset && left.length == length ? left.checksum == due : isSame;
        }
    }
    if (!isSame) {
        differ(record, "audio",
               cardName(slot) + "line " + std::to_string(line) +
                   ": the audio is not that of the simulated card");
    }
}

void Comparison::compareVoice(const Record& record, int slot, int line, const BufferView& shown,
                              const BufferView& simulated) {
    const std::uint16_t level = shown.portWord(line, layout::kLevel);
    const std::uint16_t simulatedLevel = simulated.portWord(line, layout::kLevel);
    const std::uint16_t triggered = shown.portWord(line, layout::kTriggered);
    const std::uint16_t simulatedTriggered = simulated.portWord(line, layout::kTriggered);
    if (level == simulatedLevel && triggered == simulatedTriggered) {
        return;
    }
    const std::string text = cardName(slot) + "line " + std::to_string(line) + ": level " +
                             hexadecimal(level) + ", triggered " + hexadecimal(triggered) +
                             ", the simulated card has " + hexadecimal(simulatedLevel) + " and " +
                             hexadecimal(simulatedTriggered);
    const bool onlyVoice = ((level ^ simulatedLevel) & layout::kMaxLevel) == 0;
    const bool isActive = (level & layout::kVoiceActive) != 0;
    if (onlyVoice && !options.configuration &&
        mayDifferInTime(slot, line, record.time_us, isActive)) {
        pass(Harmless::kVoiceTimes, record, text);
    } else {
        differ(record, onlyVoice ? "voice" : "level", text);
    }
}

void Comparison::noteLoudness(const BufferView& shown, int slot, const CardKind& kind,
                              std::uint64_t time_us) {
    for (int i = 0; i < kind.channels; ++i) {
        const cardsim::Line::Settings& set = model->cards.card(slot).line(i).settings();
        if ((shown.portWord(i, layout::kLevel) & layout::kMaxLevel) >= set.trigger) {
            slots[slot].lastLoud_us[i] = time_us;
            slots[slot].wasLoud[i] = true;
        }
    }
}

// Active may a line be by what came between two buffers; inactive only when the delay is over since
// the last buffer that was loud.
bool Comparison::mayDifferInTime(int slot, int line, std::uint64_t time_us,
                                 bool isShownActive) const {
    const cardsim::Line::Settings& set = model->cards.card(slot).line(line).settings();
    const Slot& state = slots[slot];
    if (set.trigger > layout::kMaxLevel) {
        return false;
    }
    return isShownActive || !state.wasLoud[line] ||
           time_us - state.lastLoud_us[line] >= 1000ull * set.delay_ms;
}

// Of life: its firmware has started, or handed over a buffer.
void Comparison::noteSign(const Record& record, int slot) {
    slots[slot].lastSign_us = record.time_us;
    slots[slot].looksInVain = 0;
    slots[slot].isSilent = false;
}

// The host has looked and found nothing.
void Comparison::compareSilence(const Record& record, int slot) {
    Slot& state = slots[slot];
    if (state.boots == 0 || state.isBooting || state.isSilent) {
        return;
    }
    ++state.looksInVain;
    if (isSilence(model->kindThere(slot), record.time_us - state.lastSign_us, state.looksInVain)) {
        state.isSilent = true;
        char since[48];
        std::snprintf(since, sizeof(since), "%.6f s", static_cast<double>(state.lastSign_us) / 1e6);
        differ(record, "hand-over",
               cardName(slot) + "has handed over nothing since " +
                   (state.turns == 0 ? "its firmware started at " : "") + since);
    }
}

void Comparison::comparePeriods() {
    for (const int slot : {0, 1}) {
        const Slot& state = slots[slot];
        const CardKind* const kind = model->kind(slot);
        if (kind == nullptr || options.configuration ||
            state.lastCounter < state.firstCounter + 100) {
            continue;
        }
        // Either of the two may have been seen late.
        constexpr double kSeenLate_us = 1.5e6;
        const double turns = state.lastCounter - state.firstCounter;
        const auto passed_us = static_cast<double>(state.lastSeen_us - state.firstSeen_us);
        const double due_us = turns * kind->period_us;
        if (std::abs(passed_us - due_us) > kPeriodTolerance * due_us + kSeenLate_us) {
            Record last;
            last.time_us = state.lastSeen_us;
            pass(Harmless::kPeriod, last,
                 cardName(slot) + "hands over a buffer every " +
                     std::to_string(static_cast<int>(passed_us / turns / 1000)) +
                     " ms, the simulated card every " + std::to_string(kind->period_us / 1000));
        }
    }
}

void Comparison::differ(const Record& record, const std::string& kind, const std::string& text) {
    ++result.differences[kind];
    if (!result.first) {
        result.first = Difference{number, record.time_us, kind, text};
    }
}

void Comparison::pass(Harmless kind, const Record& record, const std::string& text) {
    const char* const name = kHarmless[static_cast<int>(kind)].name;
    if (isStrict(kind)) {
        differ(record, name, text);
    } else {
        ++result.harmless[name];
    }
}

bool Comparison::isStrict(Harmless kind) const {
    return std::find(options.strict.begin(), options.strict.end(), kind) != options.strict.end();
}

}  // namespace cardtrace
