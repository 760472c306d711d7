// What a host has to do with the cards, said a second time, plainly and apart from the driver. It
// goes through the events of each pass of the driver's cycle, in their order, the client's calls in
// between included: what the driver read is taken as it was, what it wrote and reported must be
// what was due. It knows the cards from the simulation's description, not from the driver's.
#pragma once

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "model/TransferLayout.h"

namespace trials {

namespace layout = cardsim::layout;
using Bytes = std::vector<unsigned char>;

// Something that the driver did, or a call of the client.
struct Event {
    std::string name;
    std::uint32_t value = 0;  // at a port
    Bytes bytes = {};         // of card memory, or of a packet's payload
    std::function<void()> call = {};
};
using Events = std::deque<Event>;

// Names are these and a number: of the port, the byte in the memory of both cards, bytes, the type.
constexpr char kRead[] = "read of port ", kRelease[] = "release by port ",
               kCopy[] = "copy from byte ", kStore[] = "store at byte ",
               kFeed[] = "feeding of bytes: ", kPacket[] = "packet of type ",
               kSleep[] = "sleep of microseconds: ";

inline unsigned char byteOf(int value, int number = 0) {
    return static_cast<unsigned char>(value >> 8 * number);
}
inline void append(Bytes& bytes, std::initializer_list<int> words) {
    for (const int word : words) {
        bytes.insert(bytes.end(), {byteOf(word), byteOf(word, 1)});
    }
}

// Says what was found, and ends the process.
[[noreturn]] void deviate(const std::string& what, const std::string& due, const std::string& got);

inline void compare(const std::string& what, const Bytes& due, const Bytes& got) {
    const auto [inDue, inGot] = std::mismatch(due.begin(), due.end(), got.begin(), got.end());
    if (inDue != due.end() || inGot != got.end()) {
        deviate(what + ", byte " + std::to_string(inDue - due.begin()),
                inDue == due.end() ? "the end" : std::to_string(*inDue),
                inGot == got.end() ? "the end" : std::to_string(*inGot));
    }
}

class ReferenceHost {
  public:
    // channels: of the card in each slot, 0 for none.
    explicit ReferenceHost(const std::vector<int>& channels) {
        for (int i = 0; i < 2 && channels[i] != 0; ++i) {
            boards.push_back({i, i * channels[0], channels[i], cardsim::layoutOf(channels[i])});
            boards.back().playback.resize(2 * boards.back().transfer.audioWords);
        }
    }

    // The driver has booted the cards: all, or perhaps only those before one that failed.
    void judgeBoot(const Events& bootEvents, bool mayFail) {
        const auto isAccess = [](const Event& event) { return event.name.find("port") < 20; };
        std::remove_copy_if(bootEvents.begin(), bootEvents.end(), std::back_inserter(events),
                            isAccess);
        hearClient();
        for (Board& board : boards) {
            if (!mayFail || events.size() > 1) {
                fillPlayback(board.playback, false);
                store(board, 0, false);
                store(board, 1, false);
            }
        }
        next(kSleep, 1'000'000);
        isPausing = passes > 0;
        lockUps = 0;
    }
    // The driver has gone through a pass of its cycle; the first after a further boot is empty.
    void judgePass(const Events& passEvents) {
        events = passEvents;
        hearClient();
        int buffer = std::exchange(isPausing, false) ? 0 : -1;
        for (auto board = boards.begin(); board != boards.end() && buffer < 0; ++board) {
            buffer = findHandedOver(*board);
            if (buffer >= 0) {
                if (++warmUp > kWarmUpBuffers) {
                    exchange(*board, buffer);
                }
                next(kRead, board->statusPort(buffer));
                next(kRelease, board->statusPort(buffer));
            }
        }
        next(kSleep, lockUps > kToleratedLockUps ? 3'000'000 : 100'000);
        ++passes;
    }

    // What the client does.
    void send(int type, Bytes bytes) {
        while (type == kSettings && bytes.size() < 48) {
            bytes.push_back("\0\5\3"[bytes.size() % 3]);
        }
        bytes.resize(std::min<std::size_t>(bytes.size(), type == kSettings ? 48 : 600));
        commands.push_back({type, bytes});
    }
    void setMonitoring(int channel) {
        monitored = channel;
        emptyRing(channel == -1);
    }
    void setPlayback(bool on) {
        const auto goes = [on](const Command& command) { return !on && command.type == kPlayback; };
        commands.erase(std::remove_if(commands.begin(), commands.end(), goes), commands.end());
        playing = on;
        emptyRing(!on);
    }
    void setRecording(bool on) {
        triggered = on ? std::array<bool, 16>() : triggered;
        recording = on;
    }

    std::uint64_t passes = 0, exchanges = 0;
    int slot = 0;  // of the last exchange

  private:
    static constexpr int kPlayback = 5, kSettings = 6;  // commands
    static constexpr int kWarmUpBuffers = 6, kToleratedLockUps = 6;

    struct Command {
        int type = 0;
        Bytes bytes = {};
    };
    struct Board {
        int slot, firstChannel, channels;
        cardsim::TransferLayout transfer;
        unsigned counter = 0;
        bool followsHook[8] = {};
        Bytes settings = {}, playback = {};
        std::deque<Command> pending = {};  // for the next exchange: one or none

        bool isFour() const { return channels == 4; }
        int statusPort(int buffer) const { return 0x302 + 0x10 * slot + 2 * buffer; }
        int linePort(int k) const { return 0x306 + 0x10 * slot + 2 * k; }
        int bufferByte(int buffer) const {
            return 2 * (slot * layout::kCardWords + buffer * layout::kSecondBuffer);
        }
        // A field of a port in what was copied.
        Bytes field(const Bytes& copy, int port, int word, int count) const {
            const int first = 2 * (transfer.firstPort + port * transfer.portWords + word);
            return Bytes(copy.begin() + first, copy.begin() + first + count);
        }
        Bytes audio(const Bytes& copy, int port) const {
            return field(copy, port, transfer.audio, 2 * transfer.audioWords);
        }
    };

    // The next thing that the driver did; the client's calls in it come before whatever follows.
    Event next(const char* kind, int number) {
        const std::string due = kind + std::to_string(number);
        if (events.empty() || events.front().name != due) {
            deviate("event", due, events.empty() ? "nothing" : events.front().name);
        }
        Event event = std::move(events.front());
        events.pop_front();
        hearClient();
        return event;
    }
    void hearClient() {
        for (; !events.empty() && events.front().call; events.pop_front()) {
            events.front().call();
        }
    }
    int findHandedOver(const Board& board) {
        const bool isFirst = (next(kRead, board.statusPort(0)).value & 1) != 0;
        return isFirst ? 0 : (next(kRead, board.statusPort(1)).value & 1) != 0 ? 1 : -1;
    }
    void exchange(Board& board, int buffer) {
        slot = board.slot;
        wasSwitchedOff = false;
        const Command command = takeCommand(board);
        const Bytes copy = next(kCopy, board.bufferByte(buffer)).bytes;
        if (static_cast<int>(copy.size()) != 2 * board.transfer.words) {
            deviate("length of the copy", "the whole buffer", std::to_string(copy.size()));
        }
        if (recording) {
            reportTriggers(board, copy);
            reportTexts(board, copy);
        }
        reportAudio(board, copy);
        const int port = monitored - board.firstChannel;
        const bool isMonitoring = monitored != -1;
        if (port >= 0 && port < board.channels) {
            feed(board.audio(copy, port));
        }
        if (command.type == kPlayback) {
            feed(command.bytes);
        } else if (command.type == kSettings) {
            applySettings(board, command.bytes);
        }
        if (board.slot == 0) {
            fillPlayback(board.playback, isMonitoring || playing);
        }
        store(board, 1 - buffer, command.type == kSettings);
        if (findHandedOver(board) != buffer) {
            reportText(7, 2,
                       board.isFour() ? "Too Slow! Buffer already change"
                                      : "ReadWrite Too Slow, Buffer already changed");
        }
        const unsigned counter = copy[0] | copy[1] << 8 | copy[2] << 16 | unsigned{copy[3]} << 24;
        const unsigned before = std::exchange(board.counter, counter);
        if (before != 0 && counter != before + 1) {
            lockUps += counter == before ? 1 : 0;
            reportText(7, counter == before ? 3 : 1,
                       counter == before ? "DSP Board Locked Up" : "Missed Xfer ");
        }
        emptyRing(wasSwitchedOff);
        ++exchanges;
    }
    Command takeCommand(Board& board) {
        const bool isFirst = board.slot == 0;
        std::deque<Command>& waiting = isFirst ? commands : board.pending;
        if (waiting.empty() || (isFirst && !ring.empty())) {
            return {};
        }
        Command command = waiting.front();
        waiting.pop_front();
        if (isFirst && command.type == kSettings) {
            boards.back().pending = {command};
        }
        return command;
    }

    void reportTriggers(Board& board, const Bytes& copy) {
        for (int port = 0; !board.settings.empty() && port < board.channels; ++port) {
            const bool isLoud = board.field(copy, port, layout::kLevel, 2)[1] > 127;
            const bool state = board.followsHook[port] ? isOffHook(board, port) : isLoud;
            const int channel = board.firstChannel + port;
            if (std::exchange(triggered[channel], state) != state) {
                report(1, {byteOf(state ? 1 : 0), byteOf(channel)});
            }
        }
    }
    bool isOffHook(const Board& board, int port) {
        const auto& status = cardsim::kindOf(board.channels).lineStatus;
        const int word = port / status.linesOfWord, line = port % status.linesOfWord;
        const unsigned bits = next(kRead, board.linePort(word)).value >> line * status.bitsOfLine;
        return (bits & (status.onHook | status.offHook)) == status.offHook;
    }
    void reportTexts(const Board& board, const Bytes& copy) {
        const auto& fields = board.transfer;
        for (int port = 0; port < board.channels; ++port) {
            const int channel = board.firstChannel + port;
            reportField(3, channel, board.field(copy, port, fields.digits, fields.digitsBytes));
            reportField(2, channel, board.field(copy, port, fields.caller, layout::kCallerBytes));
        }
    }
    void reportField(int type, int channel, const Bytes& field) {
        const std::string text(field.begin(), field.end());
        const int count = static_cast<std::int8_t>(text[0]);
        if (count > 0) {
            reportText(type, channel, text.substr(1, count));
        }
    }
    void reportText(int type, int channelOrCode, const std::string& text) {
        Bytes due = {byteOf(channelOrCode), byteOf(static_cast<int>(text.size()))};
        due.insert(due.end(), text.begin(), text.end());
        report(type, due);
    }
    void reportAudio(const Board& board, const Bytes& copy) {
        Bytes due = {byteOf(board.channels), byteOf(board.firstChannel)};
        for (int port = 0; port < board.channels; ++port) {
            const Bytes audio = board.audio(copy, port);
            due.insert(due.end(), audio.begin(), audio.end());
        }
        report(4, due);
    }
    void report(int type, const Bytes& due) {
        compare(kPacket + std::to_string(type), due, next(kPacket, type).bytes);
    }

    void feed(const Bytes& audio) {
        next(kFeed, static_cast<int>(audio.size()));
        ring.insert(ring.end(), audio.begin(), audio.end());
        ring.erase(ring.begin(), ring.end() - std::min<std::ptrdiff_t>(
                                                  static_cast<std::ptrdiff_t>(ring.size()), 600));
    }
    void emptyRing(bool really) {
        wasSwitchedOff = wasSwitchedOff || really;
        ring.resize(really ? 0 : ring.size());
    }
    void applySettings(Board& board, const Bytes& table) {
        static constexpr int kLevels[2][9] = {
            {0xFF01, 0xFF02, 0x02AF, 0x047F, 0x067F, 0x0A1F, 0x0E1F, 0x115F, 0},
            {0xFF01, 0xFF02, 0x04FF, 0x089F, 0x0C9F, 0x115F, 0x155E, 0x1C20, 0}};
        const bool odd = std::exchange(oddSettings[board.isFour()], !oddSettings[board.isFour()]);
        board.settings = {layout::kApplySettings, 0, 0, 0};
        for (int port = 0; port < board.channels; ++port) {
            const unsigned char* const entry = &table[3 * (board.firstChannel + port)];
            const int level = kLevels[board.isFour()][std::min<int>(entry[1], 8)];
            const int delay_ms = std::min<int>(entry[2], 65) * 1000 + (odd ? 1 : 0);
            append(board.settings, {entry[0], level, delay_ms});
            board.followsHook[port] = entry[1] == 1;
        }
        board.settings.resize(board.settings.size() + 6);
    }
    void fillPlayback(Bytes& audio, bool mayPlay) {
        const auto count = static_cast<std::ptrdiff_t>(std::min(ring.size(), audio.size()));
        if (mayPlay && count > 0) {
            std::copy_n(ring.begin(), count, audio.begin());
            ring.erase(ring.begin(), ring.begin() + count);
            return;
        }
        static constexpr int kSilence[] = {0xBB55, 0x76DB, 0x40A0, 0x00FA, 0xC200,
                                           0x07D6, 0x0280, 0x03EB, 0x0800, 0x1F58};
        for (std::size_t i = 0; i < audio.size(); ++i) {
            audio[i] = byteOf(kSilence[i / 2 % 10], static_cast<int>(i % 2));
        }
    }
    void store(const Board& board, int buffer, bool hasSettings) {
        const int word = hasSettings ? board.transfer.command : board.transfer.playbackAudio;
        if (hasSettings || board.isFour() || board.slot == 0) {
            compare("what is stored", hasSettings ? board.settings : board.playback,
                    next(kStore, board.bufferByte(buffer) + 2 * word).bytes);
        }
    }

    std::vector<Board> boards;
    std::deque<Command> commands;
    Bytes ring;
    bool wasSwitchedOff = false;  // in this exchange: what it leaves in the ring goes at its end
    bool playing = false, recording = false, isPausing = false;  // pausing: after a further boot
    bool oddSettings[2] = {};  // of eight- and of four-channel cards
    std::array<bool, 16> triggered = {};
    int monitored = -1, warmUp = 0, lockUps = 0;
    Events events;  // to come
};

}  // namespace trials
