#include "ReferenceHost.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <utility>

namespace trials {

namespace {

using cardsim::layoutOf;
using cardsim::TransferLayout;
namespace layout = cardsim::layout;

constexpr int kNobody = -2;
constexpr std::uint64_t kWaitLimit_us = 200'000;
constexpr std::uint64_t kSettle_us = 100;
constexpr std::size_t kRingBytes = 600;
constexpr std::uint16_t kSilence[] = {0xBB55, 0x76DB, 0x40A0, 0x00FA, 0xC200,
                                      0x07D6, 0x0280, 0x03EB, 0x0800, 0x1F58};
constexpr std::uint16_t kLevels4[] = {0xFF01, 0xFF02, 0x04FF, 0x089F,
                                      0x0C9F, 0x115F, 0x155E, 0x1C20};
constexpr std::uint16_t kLevels8[] = {0xFF01, 0xFF02, 0x02AF, 0x047F,
                                      0x067F, 0x0A1F, 0x0E1F, 0x115F};

int baseOf(int slot) {
    return 0x300 + 0x10 * slot;
}

bool detectCard(Replay& bus, int slot) {
    const int base = baseOf(slot);
    bus.write(base + 0xE, 8);
    bus.write(base + 0x2, 0x12);
    bus.sleep(kSettle_us);
    bool echoes = false;
    for (int attempt = 0; attempt < 3 && !echoes; ++attempt) {
        bus.write(base, 0x55);
        echoes = (bus.read(base) & 0xFF) == 0x55;
    }
    if (!echoes) {
        return false;
    }
    bus.write(base, 0xAA);
    return (bus.read(base) & 0xFF) == 0xAA;
}

bool waitFor(Replay& bus, int port, std::uint32_t bit, bool set) {
    const std::uint64_t start = bus.time_us();
    while (((bus.read(port) & bit) != 0) != set) {
        if (bus.time_us() - start > kWaitLimit_us) {
            return false;
        }
    }
    return true;
}

bool sendByte(Replay& bus, int base, std::uint32_t byte) {
    if (!waitFor(bus, base + 0x2, 0x20, true)) {
        return false;
    }
    bus.write(base, byte);
    bus.write(base + 0x2, 0x0A);
    if (!waitFor(bus, base + 0x2, 0x01, false)) {
        return false;
    }
    bus.write(base + 0x2, 0x1A);
    return true;
}

bool sendWord(Replay& bus, int base, std::uint32_t word) {
    return sendByte(bus, base, word >> 8) && sendByte(bus, base, word & 0xFF);
}

bool sendTable(Replay& bus, int base, const Firmware& firmware) {
    std::vector<std::uint16_t> table = {0x08AA, 0x7FFF, 0xF800, 0x0000, 0x0080};
    for (const Section& section : firmware) {
        table.push_back(static_cast<std::uint16_t>(section.words.size()));
        table.push_back(0);
        table.push_back(section.address);
        table.insert(table.end(), section.words.begin(), section.words.end());
    }
    return std::all_of(table.begin(), table.end(),
                       [&](std::uint16_t word) { return sendWord(bus, base, word); });
}

void writeDefaults(Replay& bus, int slot, int channels) {
    const int base = baseOf(slot);
    bus.write(base + 0x2, bus.read(base + 0x2) & 0xFFFE);
    bus.write(base + 0x4, 0);
    for (const int port : {0x6, 0x8, 0xA}) {
        bus.write(base + port, channels == 4 ? 1 : 0x11);
    }
    if (channels == 4) {
        bus.write(base + 0xC, 1);
        bus.write(base + 0xE, slot == 0 ? 2 : 0);
    } else if (slot == 0) {
        bus.write(base + 0xC, 0x21);
    } else {
        bus.write(base + 0xE, 1);
    }
}

// Of a buffer in the memory of both cards, in words.
int offsetOf(int buffer) {
    return buffer / 2 * layout::kCardWords + buffer % 2 * layout::kSecondBuffer;
}

const unsigned char* bytesOf(const std::uint16_t* words) {
    return reinterpret_cast<const unsigned char*>(words);
}

void fillWithSilence(std::vector<unsigned char>& audio) {
    for (std::size_t i = 0; i < audio.size(); ++i) {
        audio[i] = bytesOf(kSilence)[i % sizeof kSilence];
    }
}

// A leading byte, the number of characters, and the characters.
template <class Iterator>
std::vector<unsigned char> labelled(int leadingByte, Iterator characters, int count) {
    std::vector<unsigned char> payload(static_cast<std::size_t>(2 + count));
    payload[0] = static_cast<unsigned char>(leadingByte);
    payload[1] = static_cast<unsigned char>(count);
    std::copy_n(characters, count, payload.begin() + 2);
    return payload;
}

}  // namespace

Firmware readFirmware(int channels) {
    std::ifstream loadFile(channels == 4 ? "LOAD_4CH.TXT" : "LOAD_8CH.TXT");
    const auto wholeLine = std::numeric_limits<std::streamsize>::max();
    loadFile.ignore(wholeLine, '\n').ignore(wholeLine, '\n');
    Firmware firmware;
    std::string address, size, name, comment;
    while (loadFile >> address >> size >> name >> comment) {
        std::vector<std::uint16_t> words(std::stoul(size.substr(1), nullptr, 16));
        std::ifstream(name, std::ios::binary)
            .read(reinterpret_cast<char*>(words.data()),
                  static_cast<std::streamsize>(2 * words.size()));
        firmware.push_back(
            {static_cast<std::uint16_t>(std::stoul(address.substr(1), nullptr, 16)), words});
    }
    return firmware;
}

Detected referenceDetection(Replay& bus) {
    Detected found = {0, {kNobody, kNobody}};
    const auto countLines = [&bus](int slot) {
        return (bus.read(baseOf(slot) + 0x2) & 0x04) != 0 ? 8 : 4;
    };
    if (detectCard(bus, 0)) {
        found = {1, {countLines(0), kNobody}};
    }
    if (detectCard(bus, 1) && detectCard(bus, 0)) {
        found = {2, {found.channels[0], countLines(1)}};
    }
    return found;
}

bool referenceBoot(Replay& bus, int slot, int channels, const Firmware& firmware) {
    const int base = baseOf(slot);
    bus.write(base + 0xE, 8);
    bus.write(base + 0x2, 0x12);
    bus.sleep(kSettle_us);
    bus.write(base + 0x2, 0x1A);
    bus.sleep(kSettle_us);
    if (!sendTable(bus, base, firmware)) {
        return false;
    }
    writeDefaults(bus, slot, channels);
    sendWord(bus, base, 0);
    return true;
}

ReferenceHost::ReferenceHost(const Detected& detected) {
    for (int slot = 0; slot < detected.boards; ++slot) {
        const int channels = detected.channels[static_cast<std::size_t>(slot)] == 4 ? 4 : 8;
        Board board;
        board.channels = channels;
        board.firstChannel = slot == 0 ? 0 : boards[0].channels;
        board.firmware = readFirmware(channels);
        board.playback.resize(static_cast<std::size_t>(2400 / channels));
        boards.push_back(board);
    }
}

bool ReferenceHost::boot(Replay& bus, MemoryImage& memory) {
    for (int slot = 0; slot < numBoards(); ++slot) {
        Board& board = boards[static_cast<std::size_t>(slot)];
        if (!referenceBoot(bus, slot, board.channels, board.firmware)) {
            return false;
        }
        fillWithSilence(board.playback);
        for (const int buffer : {2 * slot, 2 * slot + 1}) {
            write(board, slot, false, memory.data() + offsetOf(buffer));
        }
    }
    return true;
}

void ReferenceHost::pass(Replay& bus, const PassMemory& memory) {
    const int buffer = findHandedOver(bus);
    if (warmUp < 6) {
        if (buffer >= 0) {
            ++warmUp;
            release(bus, buffer);
        }
    } else {
        if (buffer >= 0) {
            exchange(bus, buffer, memory);
        }
        if (lockUps > 6) {
            bus.sleep(3'000'000);
            MemoryImage unwatched = memory.before;
            boot(bus, unwatched);
            bus.sleep(1'000'000);
            lockUps = 0;
        }
    }
    bus.sleep(100'000);
    bus.end();
}

int ReferenceHost::findHandedOver(Replay& bus, int slot) const {
    for (const int buffer : {0, 1}) {
        if ((bus.read(baseOf(slot) + 2 + 2 * buffer) & 1) != 0) {
            return 2 * slot + buffer;
        }
    }
    return -1;
}

int ReferenceHost::findHandedOver(Replay& bus) const {
    for (int slot = 0; slot < numBoards(); ++slot) {
        const int buffer = findHandedOver(bus, slot);
        if (buffer >= 0) {
            return buffer;
        }
    }
    return -1;
}

void ReferenceHost::release(Replay& bus, int buffer) {
    const int port = baseOf(buffer / 2) + 2 + 2 * (buffer % 2);
    bus.read(port);
    bus.write(port, 0x1A);
    ++released;
}

void ReferenceHost::exchange(Replay& bus, int buffer, const PassMemory& memory) {
    const int slot = buffer / 2;
    Board& board = boards[static_cast<std::size_t>(slot)];
    if (memory.atRelease.empty()) {
        throw Deviation("a buffer was not released");
    }
    const std::uint16_t* const words = memory.atRelease.data() + offsetOf(buffer);

    const Command command = takeCommand(slot);
    if (recording) {
        reportLines(bus, slot, words);
    }
    reportAudio(board, bytesOf(words));
    monitor(board, bytesOf(words));
    if (command.type == 5) {
        ring.insert(ring.end(), command.bytes.begin(), command.bytes.end());
        ring.erase(ring.begin(),
                   ring.end() - static_cast<std::ptrdiff_t>(std::min(ring.size(), kRingBytes)));
    } else if (command.type == 6) {
        applySettings(board, command.bytes);
    }
    if (slot == 0) {
        fillPlayback(board);
    }
    if (memory.undisturbed) {
        MemoryImage due = memory.before;
        write(board, slot, command.type == 6, due.data() + offsetOf(buffer ^ 1));
        if (due != memory.atRelease) {
            throw Deviation("other words than were due are in card memory");
        }
    }
    if (findHandedOver(bus, slot) != buffer) {
        reportError(2, board.channels == 4 ? "Too Slow! Buffer already change"
                                           : "ReadWrite Too Slow, Buffer already changed");
    }
    judgeCounter(board, words[0] | std::uint32_t{words[1]} << 16);
    release(bus, buffer);
    ++board.exchangesSinceSettings;
}

ReferenceHost::Command ReferenceHost::takeCommand(int slot) {
    Board& board = boards[static_cast<std::size_t>(slot)];
    if (!board.pending.empty()) {
        return {6, std::exchange(board.pending, {})};
    }
    if (slot != 0 || !ring.empty() || commands.empty()) {
        return {0, {}};
    }
    Command command = commands.front();
    commands.pop_front();
    if (command.type == 6 && numBoards() > 1) {
        boards[1].pending = command.bytes;
    }
    return command;
}

void ReferenceHost::reportLines(Replay& bus, int slot, const std::uint16_t* words) {
    Board& board = boards[static_cast<std::size_t>(slot)];
    const TransferLayout& transfer = layoutOf(board.channels);
    const auto portWords = [&](int port) {
        return words + transfer.firstPort + port * transfer.portWords;
    };
    for (int port = 0; board.hasSettings && port < board.channels; ++port) {
        const auto number = static_cast<std::size_t>(port);
        const bool state = board.followsHook[number]
                               ? isOffHook(bus, slot, port)
                               : (portWords(port)[layout::kLevel] & 0x8000) != 0;
        if (state != board.triggered[number]) {
            reports.push_back({1,
                               {static_cast<unsigned char>(state),
                                static_cast<unsigned char>(board.firstChannel + port)}});
        }
        board.triggered[number] = state;
    }
    for (int port = 0; port < board.channels; ++port) {
        const int channel = board.firstChannel + port;
        reportText(3, channel, bytesOf(portWords(port) + transfer.digits), transfer.digitsBytes);
        reportText(2, channel, bytesOf(portWords(port) + transfer.caller), layout::kCallerBytes);
    }
}

void ReferenceHost::reportText(int type, int channel, const unsigned char* field, int capacity) {
    if (field[0] == 0 || field[0] > 127) {
        return;
    }
    const int count = std::min<int>(field[0], capacity - 1);
    reports.push_back({type, labelled(channel, field + 1, count)});
}

void ReferenceHost::reportAudio(const Board& board, const unsigned char* bytes) {
    const TransferLayout& transfer = layoutOf(board.channels);
    Report report = {4,
                     {static_cast<unsigned char>(board.channels),
                      static_cast<unsigned char>(board.firstChannel)}};
    for (int port = 0; port < board.channels; ++port) {
        const unsigned char* const audio =
            bytes + 2 * (transfer.firstPort + port * transfer.portWords + transfer.audio);
        report.payload.insert(report.payload.end(), audio, audio + 2 * transfer.audioWords);
    }
    reports.push_back(report);
}

void ReferenceHost::reportError(int code, const std::string& text) {
    reports.push_back({7, labelled(code, text.begin(), static_cast<int>(text.size()))});
}

bool ReferenceHost::isOffHook(Replay& bus, int slot, int port) const {
    const int lines = baseOf(slot) + 0x6;
    if (boards[static_cast<std::size_t>(slot)].channels == 4) {
        return (bus.read(lines + 2 * port) & 0x04) == 0;
    }
    return (bus.read(lines + 2 * (port / 2)) & (port % 2 == 0 ? 0x04 : 0x40)) != 0;
}

void ReferenceHost::monitor(const Board& board, const unsigned char* bytes) {
    const int port = monitored - board.firstChannel;
    if (port < 0 || port >= board.channels) {
        return;
    }
    const TransferLayout& transfer = layoutOf(board.channels);
    const unsigned char* const audio =
        bytes + 2 * (transfer.firstPort + port * transfer.portWords + transfer.audio);
    ring.insert(ring.end(), audio, audio + 2 * transfer.audioWords);
    while (ring.size() > kRingBytes) {
        ring.pop_front();
    }
}

void ReferenceHost::applySettings(Board& board, const std::vector<unsigned char>& table) {
    bool& odd = oddSettings[board.channels == 4 ? 0 : 1];
    board.hasSettings = true;
    board.exchangesSinceSettings = 0;
    for (int port = 0; port < board.channels; ++port) {
        const auto number = static_cast<std::size_t>(port);
        const std::size_t entry = 3 * static_cast<std::size_t>(board.firstChannel + port);
        const unsigned trigger = table[entry + 1];
        const auto* const levels = board.channels == 4 ? kLevels4 : kLevels8;
        const int delay_ms = std::min<int>(table[entry + 2], 65) * 1000 + (odd ? 1 : 0);
        board.settings[number] = {table[entry], trigger < 8 ? levels[trigger] : std::uint16_t{0},
                                  static_cast<std::uint16_t>(delay_ms)};
        board.followsHook[number] = trigger == 1;
    }
    odd = !odd;
}

void ReferenceHost::fillPlayback(Board& board) {
    if ((monitored != -1 || playing) && !ring.empty()) {
        const auto count =
            static_cast<std::ptrdiff_t>(std::min(ring.size(), board.playback.size()));
        std::copy_n(ring.begin(), count, board.playback.begin());
        ring.erase(ring.begin(), ring.begin() + count);
    } else {
        fillWithSilence(board.playback);
    }
}

void ReferenceHost::write(const Board& board, int slot, bool hasSettings, std::uint16_t* words) {
    const TransferLayout& transfer = layoutOf(board.channels);
    if (hasSettings) {
        std::uint16_t* place = std::fill_n(words + transfer.command, 1, layout::kApplySettings);
        place = std::fill_n(place, 1, std::uint16_t{0});
        for (int port = 0; port < board.channels; ++port) {
            const Settings& line = board.settings[static_cast<std::size_t>(port)];
            for (const std::uint16_t word : {line.beep, line.trigger, line.delay_ms}) {
                *place++ = word;
            }
        }
        std::fill_n(place, 3, std::uint16_t{0});
    } else if (board.channels == 4 || slot == 0) {
        std::memcpy(words + transfer.playbackAudio, board.playback.data(), board.playback.size());
    }
}

void ReferenceHost::judgeCounter(Board& board, std::uint32_t counter) {
    if (board.counter != 0) {
        if (counter == board.counter) {
            reportError(3, "DSP Board Locked Up");
            ++lockUps;
        } else if (counter != board.counter + 1) {
            reportError(1, "Missed Xfer ");
        }
    }
    board.counter = counter;
}

void ReferenceHost::send(int type, const std::vector<unsigned char>& bytes) {
    static constexpr unsigned char kDefault[] = {0, 5, 3};
    Command command = {type, bytes};
    if (type == 6) {
        for (std::size_t i = bytes.size(); i < 48; ++i) {
            command.bytes.push_back(kDefault[i % 3]);
        }
        command.bytes.resize(48);
    } else {
        command.bytes.resize(std::min<std::size_t>(bytes.size(), 600));
    }
    commands.push_back(command);
}

void ReferenceHost::setMonitorChannel(int channel) {
    monitored = channel;
    if (channel == -1) {
        ring.clear();
    }
}

void ReferenceHost::setEnablePlayback(bool enabled) {
    playing = enabled;
    if (!enabled) {
        ring.clear();
    }
}

void ReferenceHost::dropPlayback() {
    commands.erase(std::remove_if(commands.begin(), commands.end(),
                                  [](const Command& command) { return command.type == 5; }),
                   commands.end());
}

void ReferenceHost::startRecording() {
    for (Board& board : boards) {
        board.triggered = {};
    }
    recording = true;
}

bool ReferenceHost::settingsAreOld(int slot) const {
    constexpr int kTurnsWithBoth = 4;
    const Board& board = boards[static_cast<std::size_t>(slot)];
    return board.hasSettings && board.exchangesSinceSettings > kTurnsWithBoth;
}

ReferenceHost::Settings ReferenceHost::settings(int slot, int port) const {
    return boards[static_cast<std::size_t>(slot)].settings[static_cast<std::size_t>(port)];
}

}  // namespace trials
