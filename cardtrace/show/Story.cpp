#include "show/Story.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "cards/Silence.h"
#include "model/PortMap.h"

namespace cardtrace {

namespace {

namespace portMap = cardsim::portMap;

constexpr std::size_t kMostWaiting = 4096;
constexpr std::uint64_t kSamePass_us = 1000;
constexpr std::size_t kMostJumps = 4;
constexpr std::uint64_t kSettling_us = 3'000'000;  // hosts pause when they have booted a card

std::string hexadecimal(std::uint32_t value, int digits = 4) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%0*X", digits, value);
    return text;
}

std::string milliseconds(std::uint64_t us) {
    char text[32];
    std::snprintf(text, sizeof(text), us < 100'000 ? "%.4g ms" : "%.0f ms",
                  static_cast<double>(us) / 1e3);
    return text;
}

std::string bufferName(int card, int buffer) {
    return "buffer " + std::to_string(2 * card + buffer);
}

std::string callName(const Record& record, const CallData& call) {
    switch (record.kind) {
        case Kind::kPermission:
            return (call.how != 0 ? "permission for ports " : "permission given back for ports ") +
                   hexadecimal(static_cast<std::uint32_t>(call.first), 3) + " to " +
                   hexadecimal(static_cast<std::uint32_t>(call.first + call.count - 1), 3);
        case Kind::kOpenPorts:
            return "/dev/port opened";
        case Kind::kOpenMemory:
            return "/dev/mem opened";
        default:
            break;
    }
    const std::string range =
        hexadecimal(static_cast<std::uint32_t>(call.first), 5) + " to " +
        hexadecimal(static_cast<std::uint32_t>(call.first + call.count - 1), 5);
    if (record.kind == Kind::kMap) {
        return "memory mapped, " + range;
    }
    const std::uint32_t command = call.how & 0xFFFF;
    const bool asks = command == F_GETLK || command == F_OFD_GETLK;
    const bool frees = call.how >> 16 == F_UNLCK;
    return (asks    ? "lock of memory asked after, "
            : frees ? "lock of memory given back, "
                    : "memory locked, ") +
           range;
}

std::string lineState(const cardsim::LineStatusLayout& bits, std::uint32_t status) {
    const bool offHook =
        bits.offHook != 0 ? (status & bits.offHook) != 0 : (status & bits.onHook) == 0;
    return std::string(offHook ? "off hook" : "on hook") +
           ((status & bits.triggered) != 0 ? " and triggered" : "");
}

std::size_t rangeOf(std::uint64_t gap_us) {
    const auto* const end = std::find_if(std::begin(kGapEnds_ms), std::end(kGapEnds_ms),
                                         [=](unsigned most) { return gap_us <= 1000ull * most; });
    return static_cast<std::size_t>(end - std::begin(kGapEnds_ms));
}

}  // namespace

void Story::tell(const Record& record) {
    ++whole.records;
    whole.end_us = std::max(whole.end_us, record.time_us);
    kinds.see(record);
    for (const int card : {0, 1}) {
        if (record.kind != Kind::kFile) {
            stopWaiting(record, card, record.isRead());
        }
    }
    if (record.isAccess()) {
        access(record);
    } else if (record.kind == Kind::kSleep) {
        sleep(record);
    } else if (record.isCall()) {
        call(record);
    } else if (record.kind == Kind::kBuffers) {
        buffers(record);
    } else if (record.kind == Kind::kFile) {
        lastFile = printable(record.data.substr(0, 64));
        say(line(record, -1, Topic::kDevices, "file " + lastFile + " opened"));
    } else if (record.kind == Kind::kCards) {
        cards[0] = cards[1] = {};
        say(line(record, -1, Topic::kDevices,
                 "process " + std::to_string(record.value) + " has the cards"));
    } else {
        whole.hasEnd = true;
        whole.exitStatus = record.value;
        say(line(record, -1, Topic::kDevices,
                 "end of the recording, exit status " + std::to_string(record.value)));
    }
    flush(false);
}

void Story::end() {
    for (const int card : {0, 1}) {
        const CardStory& story = cards[card];
        auto& boots = whole.cards[card].boots;
        if (story.state == State::kBooting && !boots.empty() && boots.back().endedAt.empty()) {
            boots.back().endedAt = "the end of the trace, at " + placeOf(card);
        }
    }
    flush(true);
}

Line Story::line(const Record& record, int card, Topic topic, const std::string& text) const {
    Line made;
    made.record = whole.records;
    made.time_us = record.time_us;
    made.card = card;
    made.topic = topic;
    made.text = text;
    return made;
}

void Story::access(const Record& record) {
    const int card = portMap::slotOf(record.port);
    if (record.failed()) {
        noteFailure("/dev/port: errno " + std::to_string(record.value));
        say(line(record, card, Topic::kDevices,
                 "port " + hexadecimal(record.port, 3) + " failed with errno " +
                     std::to_string(record.value)));
        return;
    }
    if (card == -1 || record.isUnanswered()) {
        say(line(record, -1, Topic::kRegisters,
                 std::string(record.isUnanswered() ? "answered by nobody: " : "") + "port " +
                     hexadecimal(record.port, 3) + (record.isRead() ? " -> " : " <- ") +
                     hexadecimal(record.value, 2 * record.width)));
        return;
    }
    whole.cards[card].isSeen = true;
    if (kinds.kind(card) != nullptr) {
        whole.cards[card].channels = kinds.kind(card)->channels;
    }
    const std::uint16_t offset = record.port % portMap::kPortsOfCard;
    if (record.isRead()) {
        read(record, card, offset);
    } else {
        write(record, card, offset);
    }
}

void Story::read(const Record& record, int card, std::uint16_t offset) {
    const State state = cards[card].state;
    const bool runs = state == State::kRunning || state == State::kUnknown;
    if (offset == portMap::kControl && state == State::kBooting) {
        readBootStatus(record, card);
    } else if (runs && (offset == portMap::kControl || offset == portMap::kBuffer1)) {
        readStatus(record, card, offset == portMap::kControl ? 0 : 1);
    } else if (offset == portMap::kControl) {
        const bool isEight = kinds.kind(card) != nullptr && kinds.kind(card)->channels == 8;
        say(line(record, card, Topic::kDetection,
                 "in reset, status -> " + hexadecimal(record.value, 2 * record.width) +
                     (isEight ? ": eight channels" : ": four channels")));
    } else if (offset == portMap::kData) {
        readData(record, card);
    } else if (runs && offset >= portMap::kLines && offset < portMap::kReset &&
               kinds.kind(card) != nullptr) {
        readLines(record, card, (offset - portMap::kLines) / 2);
    } else {
        say(line(record, card, Topic::kRegisters,
                 "register " + hexadecimal(offset, 1) + " -> " +
                     hexadecimal(record.value, 2 * record.width)));
    }
}

void Story::write(const Record& record, int card, std::uint16_t offset) {
    CardStory& story = cards[card];
    if (offset == portMap::kControl) {
        control(record, card);
        return;
    }
    if (offset == portMap::kReset) {
        story.resetRegister = record.value;
    } else if (offset == portMap::kData) {
        story.data = record.value;
    } else if (offset == portMap::kBuffer1 && record.value == portMap::kRun &&
               story.state != State::kBooting && story.state != State::kHeld) {
        release(record, card, 1);
        return;
    }
    Line said = line(record, card, Topic::kRegisters,
                     "register " + hexadecimal(offset, 1) + " <- " +
                         hexadecimal(record.value, 2 * record.width));
    if (offset == portMap::kData && story.state == State::kBooting) {
        said.text = "boot byte at the data port <- " + hexadecimal(record.value & 0xFF, 2);
        said.topic = Topic::kBoot;
        said.isDetail = true;
    } else if (offset == portMap::kData) {
        said.text = "echo test: " + hexadecimal(record.value & 0xFF, 2) + " written";
        said.topic = Topic::kDetection;
        said.isDetail = true;
    }
    say(said);
}

void Story::readData(const Record& record, int card) {
    CardFacts& facts = whole.cards[card];
    const std::uint32_t due = cards[card].data & 0xFF;
    const std::uint32_t echo = record.value & 0xFF;
    ++facts.echoes;
    facts.wrongEchoes += echo == due ? 0 : 1;
    facts.nobodyAnswers = echo == due ? facts.nobodyAnswers : echo == 0xFF;
    say(line(record, card, Topic::kDetection,
             "echoes " + hexadecimal(due, 2) +
                 (echo == due ? ": right"
                              : " as " + hexadecimal(echo, 2) +
                                    (echo == 0xFF ? ": nobody answers" : ": wrong"))));
}

void Story::readLines(const Record& record, int card, int word) {
    const cardsim::LineStatusLayout& bits = kinds.kind(card)->lineStatus;
    std::string text;
    for (int i = 0; i < bits.linesOfWord; ++i) {
        text += std::string(text.empty() ? "" : ", ") + "line " +
                std::to_string(word * bits.linesOfWord + i) + ' ' +
                lineState(bits, record.value >> (i * bits.bitsOfLine));
    }
    say(line(record, card, Topic::kLines, text));
}

void Story::readBootStatus(const Record& record, int card) {
    CardStory& story = cards[card];
    const bool wantsByte = (record.value & portMap::kWantsByte) != 0;
    const bool isBusy = (record.value & portMap::kByteBusy) != 0;
    if (story.wait == Wait::kNothing) {
        story.wait = Wait::kForWish;
        story.reads = 0;
        story.waitBegan_us = record.time_us;
    }
    ++story.reads;
    Line said = line(record, card, Topic::kBoot,
                     "status -> " + hexadecimal(record.value) +
                         (story.wait == Wait::kForTaking
                              ? (isBusy ? ": boot byte not taken yet" : ": boot byte taken")
                              : (wantsByte ? ": wants a boot byte" : ": wants no boot byte yet")));
    said.isDetail = true;
    if (story.wait == Wait::kForWish && wantsByte) {
        story.wait = Wait::kNothing;
    } else if (story.wait == Wait::kForTaking && !isBusy) {
        story.wait = Wait::kNothing;
        const std::string text =
            tellBootByte(record, card, static_cast<std::uint8_t>(story.data & 0xFF));
        said.text = options.all ? text : said.text;
    }
    say(said);
}

// The host does something else although the card has not done what it waited for.
void Story::stopWaiting(const Record& record, int card, bool isRead) {
    CardStory& story = cards[card];
    const bool goesOn = record.isAccess() && portMap::slotOf(record.port) == card && isRead &&
                        record.port % portMap::kPortsOfCard == portMap::kControl;
    if (story.wait == Wait::kNothing || goesOn || story.reads == 0) {
        return;
    }
    CardFacts& facts = whole.cards[card];
    const BootStream::Byte byte = story.stream.next();
    const bool asked = story.wait == Wait::kForWish;
    story.wait = Wait::kNothing;
    story.state = State::kUnknown;  // hosts go on as if it ran
    ++facts.timeOuts;
    facts.timeOutInHeader = facts.timeOutInHeader || byte.place == BootStream::Place::kHeader;
    const std::string text = placeOf(card) + (asked ? " never asked for" : " never taken") +
                             ": given up after " + std::to_string(story.reads) + " reads in " +
                             milliseconds(record.time_us - story.waitBegan_us);
    if (!facts.boots.empty()) {
        facts.boots.back().endedAt = text;
        facts.boots.back().ended_us = record.time_us;
    }
    say(line(record, card, Topic::kBoot, text));
}

// Where the next byte of the boot table stands.
std::string Story::placeOf(int card) const {
    const CardStory& story = cards[card];
    const BootStream::Byte byte = story.stream.next();
    switch (byte.place) {
        case BootStream::Place::kHeader:
            return "boot byte " + std::to_string(byte.number) + " of the header";
        case BootStream::Place::kBlockHeader:
            return "boot byte " + std::to_string(byte.number) + " of the head of block " +
                   std::to_string(byte.block);
        case BootStream::Place::kBlock:
            return "boot byte " + std::to_string(byte.number) + " of " + story.blockName;
        case BootStream::Place::kEnd:
            break;
    }
    return "boot byte behind the end";
}

// A block has the name of the file that was opened between its head and its first byte.
void Story::nameBlock(int card) {
    CardStory& story = cards[card];
    const BootStream::Byte at = story.stream.next();
    if (at.place == BootStream::Place::kBlock && at.block != story.namedBlock) {
        story.namedBlock = at.block;
        story.blockName =
            lastFile.empty() ? "block " + std::to_string(at.block) : std::exchange(lastFile, "");
    }
}

std::string Story::tellBootByte(const Record& record, int card, std::uint8_t byte) {
    CardStory& story = cards[card];
    const BootStream::Byte at = story.stream.next();
    Line said = line(record, card, Topic::kBoot,
                     placeOf(card) + " <- " + hexadecimal(byte, 2) + ", taken after " +
                         std::to_string(story.reads) + (story.reads == 1 ? " read" : " reads"));
    said.fold = "boot " + std::to_string(card) + placeOf(card).substr(placeOf(card).find(" of "));
    said.first = said.last = at.number;
    said.fewestReads = said.mostReads = story.reads;
    if (at.place == BootStream::Place::kBlockHeader && at.number == 1) {
        lastFile.clear();  // it was the load file, not that of the block
    }
    story.stream.take(byte);
    if (story.stream.endsBlock()) {
        noteBlock(card);
    }
    if (!whole.cards[card].boots.empty()) {
        ++whole.cards[card].boots.back().bytes;
    }
    if (!options.all) {
        say(said);
    }
    return said.text;
}

void Story::noteBlock(int card) {
    auto& boots = whole.cards[card].boots;
    if (boots.empty() || boots.back().blocks.size() >= BootFacts::kMostBlocks) {
        return;
    }
    const CardStory& story = cards[card];
    boots.back().blocks.push_back(
        {story.blockName, story.stream.address(), story.stream.words(), story.stream.checksum()});
}

void Story::control(const Record& record, int card) {
    CardStory& story = cards[card];
    const std::uint32_t before = std::exchange(story.control, record.value);
    if (record.value == portMap::kStop && story.resetRegister == portMap::kResetArmed) {
        story.state = State::kHeld;
        noteGap(record, card);
        story.handedOver[0] = story.handedOver[1] = false;
        story.hasLooked = false;
        story.lookedAt_us[0] = story.lookedAt_us[1] = 0;
        say(line(record, card, Topic::kRegisters, "held in reset"));
    } else if (record.value == portMap::kRun && story.state == State::kHeld) {
        startBoot(record, card);
    } else if (record.value == portMap::kStrobe && story.state == State::kBooting) {
        story.wait = Wait::kForTaking;
        story.reads = 0;
        story.waitBegan_us = record.time_us;
        nameBlock(card);
        Line said = line(record, card, Topic::kBoot, placeOf(card) + " strobed");
        said.isDetail = true;
        say(said);
    } else if (record.value == portMap::kRun && before == portMap::kStrobe) {
        endStrobe(record, card);
    } else if (record.value == portMap::kRun && story.state != State::kBooting) {
        release(record, card, 0);
    } else {
        say(line(record, card, Topic::kRegisters, "control <- " + hexadecimal(record.value)));
    }
}

void Story::startBoot(const Record& record, int card) {
    CardStory& story = cards[card];
    CardFacts& facts = whole.cards[card];
    story.state = State::kBooting;
    story.stream.restart();
    story.namedBlock = -1;
    story.knowsCounter = story.hasLooked = false;
    story.missed.clear();
    lastFile.clear();
    if (facts.boots.size() < CardFacts::kMostBoots) {
        facts.boots.emplace_back();
        facts.boots.back().began_us = record.time_us;
    } else {
        ++facts.furtherBoots;
    }
    say(line(record, card, Topic::kBoot, "let out of reset: its boot loader runs"));
}

void Story::endStrobe(const Record& record, int card) {
    CardStory& story = cards[card];
    Line said = line(record, card, Topic::kBoot, "strobe ended");
    said.isDetail = true;
    say(said);
    if (story.state == State::kBooting && story.stream.hasEnded()) {
        story.state = State::kRunning;
        story.started_us = story.nothingSince_us = record.time_us;
        story.looksInVain = 0;
        auto& boots = whole.cards[card].boots;
        if (!boots.empty()) {
            boots.back().isWhole = true;
            boots.back().ended_us = record.time_us;
        }
        say(line(record, card, Topic::kBoot, "has the whole boot table: its firmware starts"));
    }
}

void Story::noteLook(const Record& record, int card) {
    CardStory& story = cards[card];
    noteGap(record, card);
    ++whole.cards[card].looks;
    story.hasLooked = true;
    story.lastLook_us = record.time_us;
}

// Between the last look and this one, or what came in its place.
void Story::noteGap(const Record& record, int card) {
    const CardStory& story = cards[card];
    CardFacts& facts = whole.cards[card];
    const std::uint64_t gap = record.time_us - std::min(record.time_us, story.lastLook_us);
    if (story.hasLooked && gap >= kSamePass_us) {
        ++facts.gaps[rangeOf(gap)];
        facts.lateLooks += gap > 1000ull * kLateGap_ms ? 1 : 0;
        facts.longestGap_us = std::max(facts.longestGap_us, gap);
    }
}

// A look that found nothing; a host that looks again and again finds something within a period.
void Story::noteNothing(const Record& record, int card) {
    CardStory& story = cards[card];
    CardFacts& facts = whole.cards[card];
    if (story.looksInVain++ == 0 && story.nothingSince_us == 0) {
        story.nothingSince_us = record.time_us;  // the beginning of the trace is missing
    }
    const std::uint64_t passed_us =
        record.time_us - std::min(record.time_us, story.nothingSince_us);
    if (kinds.kind(card) != nullptr && isSilence(*kinds.kind(card), passed_us, story.looksInVain) &&
        story.looksInVain > facts.looksInVain) {
        facts.looksInVain = story.looksInVain;
        facts.silentSince_us = story.nothingSince_us;
    }
}

void Story::readStatus(const Record& record, int card, int buffer) {
    CardStory& story = cards[card];
    const bool isSet = (record.value & portMap::kHandedOver) != 0;
    if (isSet && !story.handedOver[buffer]) {
        handOver(record, card, buffer);
    } else if (isSet) {
        Line said =
            line(record, card, Topic::kPolls, bufferName(card, buffer) + " is still handed over");
        said.isDetail = true;
        say(said);
    } else if (story.handedOver[buffer]) {
        story.handedOver[buffer] = story.waitsForCounter[buffer] = false;
        say(line(record, card, Topic::kTransfers,
                 "has taken " + bufferName(card, buffer) + " back before it was released"));
    } else {
        noteNothing(record, card);
        Line said =
            line(record, card, Topic::kPolls, bufferName(card, buffer) + " is not handed over");
        if (!options.all) {
            said.fold = "idle";
            said.looks[card] = buffer == 0 ? 1 : 0;
            said.isDetail = buffer != 0;
        }
        say(said);
    }
    story.lookedAt_us[buffer] = record.time_us;
    noteLook(record, card);
}

void Story::handOver(const Record& record, int card, int buffer) {
    CardStory& story = cards[card];
    story.handedOver[buffer] = story.waitsForCounter[buffer] = true;
    story.handedOver_us[buffer] = record.time_us;
    ++whole.cards[card].handOvers;
    whole.cards[card].lastHandOver_us = story.nothingSince_us = record.time_us;
    story.looksInVain = 0;
    const std::uint64_t looked_us = std::min(record.time_us, story.lookedAt_us[buffer]);
    Line said = line(record, card, Topic::kTransfers, "hands over " + bufferName(card, buffer));
    said.buffer = buffer;
    said.waitsForBuffers = true;
    if (looked_us != 0) {
        said.text += ", " + milliseconds(record.time_us - looked_us) + " after the last look";
    }
    say(said);
}

// Completes what was said about the buffers that are handed over.
void Story::buffers(const Record& record) {
    const int card = record.port;
    CardStory& story = cards[card];
    const cardsim::CardKind* const kind = kinds.kind(card);
    for (const int buffer : {0, 1}) {
        if (kind == nullptr) {
            continue;
        }
        story.fromHost[buffer] = fromHost(record, buffer, card);
        if (!std::exchange(story.waitsForCounter[buffer], false)) {
            continue;
        }
        const std::string text = fromDsp(record, buffer, card);
        for (Line& each : waiting) {
            if (each.waitsForBuffers && each.card == card && each.buffer == buffer) {
                each.waitsForBuffers = false;
                each.text += text;
            }
        }
    }
}

std::string Story::fromDsp(const Record& record, int buffer, int card) {
    const BufferView view(record, buffer, *kinds.kind(card));
    CardFacts& facts = whole.cards[card];
    std::string text =
        ", counter " + std::to_string(view.counter()) + judgeCounter(record, view.counter(), card);
    for (int i = 0; i < kinds.kind(card)->channels; ++i) {
        const std::string caller = printable(view.caller(i));
        const std::string digits = printable(view.digits(i));
        facts.callers += caller.empty() ? 0 : 1;
        facts.digits += digits.size();
        if (!caller.empty() || !digits.empty()) {
            text += "; line " + std::to_string(i) + (caller.empty() ? "" : " caller " + caller) +
                    (digits.empty() ? "" : " digits " + digits);
        }
    }
    return text;
}

// A host that was held up finds both buffers, and may take the newer one first: then the older one
// seemed missed for a moment.
std::string Story::judgeCounter(const Record& record, std::uint32_t counter, int card) {
    CardStory& story = cards[card];
    CardFacts& facts = whole.cards[card];
    const auto late =
        std::find_if(story.missed.begin(), story.missed.end(),
                     [=](const Missed& each) { return counter - each.first < each.count; });
    if (late != story.missed.end()) {
        --facts.missed;
        facts.missedAfterBoot -= late->isAfterBoot ? 1 : 0;
        story.missed.erase(late);
        return ", late";
    }
    const std::uint32_t before = std::exchange(story.counter, counter);
    const std::uint32_t passed = counter - before;
    if (!std::exchange(story.knowsCounter, true) || passed == 1 || counter == 0) {
        return "";
    }
    if (passed == 0) {
        ++facts.repeated;
        return " again";
    }
    if (passed >= 0x80000000) {
        return ", out of order";
    }
    const bool isAfterBoot =
        story.started_us != 0 && record.time_us - story.started_us < kSettling_us;
    story.missed.push_back({before + 1, passed - 1, isAfterBoot});
    if (story.missed.size() > kMostJumps) {
        story.missed.pop_front();
    }
    facts.missed += passed - 1;
    facts.missedAfterBoot += isAfterBoot ? passed - 1 : 0;
    return ", " + std::to_string(passed - 1) + " missed";
}

// What the host has put into a buffer.
std::string Story::fromHost(const Record& record, int buffer, int card) {
    const cardsim::CardKind& kind = *kinds.kind(card);
    const BufferView view(record, buffer, kind);
    if (!view.hasSettings()) {
        switch (playbackOf(record, buffer, kind)) {
            case Playback::kAudio:
                return "audio to play";
            case Playback::kSilence:
                return "silence to play";
            case Playback::kNothing:
                return "";
        }
    }
    std::string text = "settings:";
    for (int i = 0; i < kind.channels; ++i) {
        const LineFacts set = {view.setting(i, 0), view.setting(i, 1), view.setting(i, 2)};
        whole.cards[card].lines[i] = set;
        text += (i == 0 ? " line " : "; line ") + std::to_string(i) + " beep " +
                std::to_string(set.beep) + " trigger " + hexadecimal(set.trigger) + " delay " +
                std::to_string(set.delay_ms) + " ms";
    }
    return text;
}

void Story::release(const Record& record, int card, int buffer) {
    CardStory& story = cards[card];
    CardFacts& facts = whole.cards[card];
    const std::string& given = story.fromHost[buffer ^ 1];
    ++facts.releases;
    facts.settings += given.compare(0, 9, "settings:") == 0 ? 1 : 0;
    facts.silencePlayed += given == "silence to play" ? 1 : 0;
    facts.audioPlayed += given == "audio to play" ? 1 : 0;
    std::string text = "gets " + bufferName(card, buffer) + " back";
    if (story.handedOver[buffer]) {
        text += ", " + milliseconds(record.time_us - story.handedOver_us[buffer]) +
                " after it was seen";
    } else if (story.lookedAt_us[buffer] != 0) {
        ++facts.notHandedOver;
        text += ", which was not handed over";
    }
    if (!given.empty()) {
        text += "; in " + bufferName(card, buffer ^ 1) + ": " + given;
    }
    story.handedOver[buffer] = story.waitsForCounter[buffer] = false;
    say(line(record, card, Topic::kTransfers, text));
}

void Story::call(const Record& record) {
    const std::string name = callName(record, callOf(record));
    if (record.value != 0) {
        noteFailure(name.substr(0, name.find(',')) + ": errno " + std::to_string(record.value));
    }
    say(line(
        record, -1, Topic::kDevices,
        name + (record.value == 0 ? "" : ": failed with errno " + std::to_string(record.value))));
}

void Story::noteFailure(const std::string& what) {
    if (whole.failures.size() < Facts::kMostFailures || whole.failures.count(what) != 0) {
        ++whole.failures[what];
    }
}

void Story::sleep(const Record& record) {
    const std::uint64_t us = callOf(record).count;
    Line said = line(record, -1, Topic::kSleeps, "sleeps " + milliseconds(us));
    if (!options.all) {
        said.fold = "idle";
        said.sleeps = 1;
        said.slept_us = us;
    }
    say(said);
}

bool Story::isWanted(const Line& said) const {
    const bool ofCard = options.card == -1 || said.card == options.card;
    const bool inTime = said.time_us >= options.from_us && said.time_us <= options.to_us;
    return ofCard && inTime && (options.topics >> static_cast<unsigned>(said.topic) & 1) != 0 &&
           (options.all || !said.isDetail);
}

void Story::say(Line said) {
    if (!isWanted(said)) {
        return;
    }
    if (!said.fold.empty() && !waiting.empty() && waiting.back().fold == said.fold) {
        putTogether(waiting.back(), said);
        return;
    }
    waiting.push_back(std::move(said));
}

// Lines go out once nothing can be added to them.
void Story::flush(bool everything) {
    while (!waiting.empty()) {
        const bool mayGrow = waiting.size() == 1 && !waiting.front().fold.empty();
        const bool isComplete = !waiting.front().waitsForBuffers && !mayGrow;
        if (!everything && !isComplete && waiting.size() < kMostWaiting) {
            return;
        }
        teller(waiting.front());
        waiting.pop_front();
    }
}

}  // namespace cardtrace
