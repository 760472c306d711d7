// One card's exchange of transfer buffers, for both kinds of card on either board. Card memory is a
// plain array here, laid out as the simulated cards have it, and the registers read as set. What is
// due at an exchange, to be reported, printed and written, is said here a second time.
#include <signal.h>
#include <ucontext.h>

#include <cstring>
#include <random>

#include "BoardMgr.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "MonitorBuffer.h"
#include "ScriptedCards.h"
#include "Surroundings.h"
#include "model/TransferLayout.h"

extern std::function<void()> whenAllocating;

namespace {

using namespace testing;
using Words = std::vector<std::uint16_t>;

class Board : public TestWithParam<std::tuple<int, int>> {
  protected:
    Board() {
        BoardMgr::getInstance();
        char* const address = reinterpret_cast<char*>(memory.data());
        if (eight) {
            board = std::make_unique<DSPBoardEightChannel>(number, address, first);
        } else {
            board = std::make_unique<DSPBoardFourChannel>(number, address, first);
        }
        console.take();
    }

    int below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
    // What the DSP tells of a line, in the buffer that it hands over.
    const std::uint16_t* lineData(int port, int word) const {
        return &memory[buffer * 0x800 + layout.firstPort + port * layout.portWords + word];
    }
    std::string audioOf(int port) const {
        return {reinterpret_cast<const char*>(lineData(port, layout.audio)), audioBytes};
    }
    bool lineStatus(int port, unsigned bit) {
        const int word = eight ? port & ~1 : 2 * port, shift = eight ? port % 2 * 4 : 0;
        return (cards.registers[base + 6 + word] >> shift & bit) != 0;
    }
    bool isTriggered(int port) {
        return followsHook[port] ? lineStatus(port, 4) == eight : *lineData(port, 0) >= 0x8000;
    }
    Words silence() const {
        Words words;
        while (words.size() < played.size()) {
            words.insert(words.end(), {0xBB55, 0x76DB, 0x40A0, 0x00FA, 0xC200,  //
                                       0x07D6, 0x0280, 0x03EB, 0x0800, 0x1F58});
        }
        return words;
    }

    void dueTrace() {
        const char* const vox = eight ? " VOX Trigger " : "VOX Trigger ";
        const char* const gen = eight ? " Gen Trigger " : "Gen Trigger ";
        out << "Transfer Count = " << counter << "\n";
        for (int port = 0; counter % 10 == 1 && port < lines; ++port) {
            const bool isOn = isTriggered(port), isGen = *lineData(port, 2) != 0;
            if (followsHook[port]) {
                out << port << (isOn ? " OH Triggered\n" : " OH \n");
            } else {
                out << port << " VOX " << *lineData(port, 0) << (isOn ? vox : "")
                    << (isGen ? gen : "")
                    << (eight && lineStatus(port, 8) ? " FPGA Triggered\n\n" : "\n");
            }
        }
    }
    void dueDebugWords() {
        const std::uint16_t* const words = &memory[buffer * 0x800 + layout.debug];
        out << "Debug Buffer: \n";
        for (int i = 1; i <= std::min<int>(*words, 249); ++i) {
            out << words[i] << " ";
        }
        out << "\n";
    }
    void duePacket(Bytes packet, const std::string& content) {
        for (const char byte : content) {
            packet.push_back(static_cast<unsigned char>(byte));
        }
        packets.push_back(packet);
    }
    void dueText(int port, PacketType type, int word, int bytes) {
        const char* const text = reinterpret_cast<const char*>(lineData(port, word));
        const int count = static_cast<std::int8_t>(*text), kept = std::min(count, bytes - 1);
        if (count > 0) {
            duePacket({type, first + port, kept}, std::string(text + 1, kept));
        }
        if (count > 0 && (type == PACKET_CLI || !eight)) {
            out << (type == PACKET_CLI ? "Sending CLI" : "Sending")
                << " Packet to Java: channel=" << port << " length=" << count << "\n";
        }
    }
    void dueReports() {
        for (int port = 0; hasSettings && port < lines; ++port) {
            const bool state = isTriggered(port);
            if (std::exchange(triggered[port], state) != state) {
                duePacket({PACKET_TRIGGER, state, first + port}, "");
            }
        }
        for (int port = 0; port < lines; ++port) {
            dueText(port, PACKET_DTMF, layout.digits, layout.digitsBytes);
            dueText(port, PACKET_CLI, layout.caller, cardsim::layout::kCallerBytes);
        }
    }
    void dueAudio() {
        std::string bytes;
        for (int port = 0; port < lines; ++port) {
            bytes += audioOf(port);
        }
        duePacket({PACKET_RECORDED_DATA, lines, first}, bytes);
        if (monitored >= first && monitored < first + lines) {
            out << (eight ? "" : "Copying monitor data to buffer\n");
            dueInRing(audioOf(monitored - first));
        }
    }
    void dueInRing(const std::string& bytes) {
        ring += bytes;
        ring.erase(0, std::max<std::size_t>(ring.size(), 600) - 600);
        err << "Adding data to monitor buffer, size now=" << ring.size() << "\n";
    }
    Words dueBlock() {
        static constexpr std::uint16_t kLevels[2][9] = {
            {0xFF01, 0xFF02, 0x04FF, 0x089F, 0x0C9F, 0x115F, 0x155E, 0x1C20, 0},
            {0xFF01, 0xFF02, 0x02AF, 0x047F, 0x067F, 0x0A1F, 0x0E1F, 0x115F, 0}};
        Words block = {2, 0};
        for (int channel = first; channel < first + lines; ++channel) {
            const int kind = settings.getTrigType(channel);
            const int delay_ms = std::min<int>(65, settings.getTrigDelaySecs(channel)) * 1000;
            block.insert(block.end(), {settings.getBeepType(channel), kLevels[eight ? 1 : 0][kind],
                                       static_cast<std::uint16_t>(delay_ms + applied % 2)});
            followsHook[channel - first] = kind == TS_OFF_HOOK;
        }
        ++applied;
        hasSettings = true;
        err << "Updateing Line Settings!!!\n" << std::string(settings.toString()) << "\n";
        block.resize(layout.firstPort - layout.command);
        return block;
    }
    void duePlayed() {
        const bool monitors = monitored != -1;
        out << (eight && monitors && ring.empty() ? "ERROR: Monitoring but buffer is empty\n" : "");
        if ((!monitors && !plays) || ring.empty()) {
            played = silence();
            return;
        }
        const std::size_t bytes = std::min<std::size_t>(ring.size(), audioBytes);
        std::memcpy(played.data(), ring.data(), bytes);  // the rest is left as it was
        ring.erase(0, bytes);
        err << "Getting data from monitor buffer, size now=" << ring.size() << "\n";
    }
    void dueError(int code, const std::string& text) {
        packets.push_back(errorReport(code, text));
        err << "ERROR! " << text << "\n";
    }

    // The DSP hands over a buffer, or takes it back too soon. Half of the words in it are zero,
    // most counters are right.
    void handOverAnything(int round) {
        std::generate(memory.begin(), memory.end(), [this] { return below(2) * below(0x10000); });
        constexpr std::uint32_t kSteps[] = {1, 1, 1, 1, 1, 0, 2, 0x10001};
        last = std::exchange(counter, round % 50 == 49 ? ~0u : counter + kSteps[below(8)]);
        buffer = round % 2;
        std::memcpy(&memory[buffer * 0x800], &counter, sizeof(counter));
        for (int port = 2; port < 14; ++port) {
            cards.registers[base + port] = static_cast<std::uint32_t>(below(0x10000));
        }
        isLate = below(8) == 0;
        cards.registers[base + 2 + 2 * buffer] = isLate ? 0xFFFE : 0xFFFF;
        cards.registers[base + 4 - 2 * buffer] = 0xFFFE;
    }
    // The client switches everything; its command.
    Packet* wishAnything() {
        records = below(4) != 0;
        records ? BoardMgr::getInstance().startRecording()
                : BoardMgr::getInstance().stopRecording();
        board->setEnablePlayback(plays = below(2) != 0);
        board->enableDebug(debugs = below(2) != 0);
        board->setMonitoringChannel(monitored = std::max(below(14) - 2, -1));
        if (below(8) == 0) {
            board->clearTriggers();
            std::fill_n(triggered, 8, false);
            MonitorBuffer::getInstance().clear();
            ring.clear();
        }
        unsigned char bytes[700];
        for (int i = 0; i < 700; ++i) {
            bytes[i] = static_cast<unsigned char>(i % 3 == 1 && i < 48 ? below(9) : below(100));
        }
        audio.read(bytes, below(700));
        settings.read(bytes, 48);
        Packet* const commands[] = {nullptr, &audio, &settings};
        return commands[below(3)];
    }
    // What is in card memory afterwards.
    Words dueExchange(const Packet* command) {
        packets.clear();
        out.str("");
        err.str("");
        debugs ? dueTrace() : void();
        records ? dueReports() : void();
        dueAudio();
        if (command == &audio) {
            dueInRing({audio.getData(), audio.getData() + audio.getLength()});
        }
        const Words block = command == &settings ? dueBlock() : Words();
        number == 0 ? duePlayed() : void();
        Words due = memory;
        const auto other = due.begin() + 0x800 * (1 - buffer);
        if (!block.empty()) {
            std::copy(block.begin(), block.end(), other + layout.command);
        } else if (isPlayer) {
            std::copy(played.begin(), played.end(), other + layout.playbackAudio);
        }
        if (isLate) {
            dueError(2, eight ? "ReadWrite Too Slow, Buffer already changed"
                              : "Too Slow! Buffer already change");
        }
        if (last != 0 && counter != last + 1) {
            dueError(counter == last ? 3 : 1,
                     counter == last ? "DSP Board Locked Up" : "Missed Xfer ");
        }
        eight ? void() : dueDebugWords();
        return due;
    }

    const int lines = std::get<0>(GetParam());
    const cardsim::TransferLayout& layout = cardsim::layoutOf(lines);
    const int number = std::get<1>(GetParam());
    const bool eight = lines == 8;
    const bool isPlayer = !eight || number == 0;
    const int first = 4 * number, base = 0x300 + 0x10 * number;
    const std::size_t audioBytes = 2 * layout.audioWords;
    Words memory = Words(0x1000);
    ScriptedCards cards;
    Console console;
    std::unique_ptr<DSPBoard> board;
    std::mt19937 random{7};
    // What the DSP and the client do next.
    std::uint32_t last = 0, counter = 0;
    int buffer = 0, monitored = -1;
    bool isLate = false, records = false, plays = false, debugs = false;
    PlaybackDataPacket audio;
    LineSettingsPacket settings;
    // What is due.
    std::vector<Bytes> packets;
    std::ostringstream out, err;
    std::string ring;
    Words played = Words(layout.audioWords);
    bool hasSettings = false, followsHook[8] = {}, triggered[8] = {};
    int applied = 0;
};

TEST_P(Board, ExchangesBuffersOfAnyContentAsTheClientWishes) {
    for (int round = 0; round < 1000 && !HasFailure(); ++round) {
        handOverAnything(round);
        Packet* const command = wishAnything();
        const Words due = dueExchange(command);
        const int handedOver = 2 * number + buffer;
        EXPECT_EQ(isLate ? -1 : handedOver, board->getLockedBuffer());
        console.take();
        board->doReadWrite(handedOver, command);
        if (const auto* const four = dynamic_cast<DSPBoardFourChannel*>(board.get())) {
            four->printDebugBuffer();
        }
        EXPECT_EQ(packets, reportsIn(takePackets(), true)) << "round " << round;
        EXPECT_EQ(out.str(), console.take().out);
        EXPECT_EQ(err.str(), console.err);
        EXPECT_TRUE(due == memory);
        EXPECT_EQ(last != 0 && counter == last, board->isLockedUp());
        board->setLockedUp(false);
    }
}

std::function<bool()> onStep;  // after each instruction; whether to go on

void step(int, siginfo_t*, void* context) {
    greg_t& flags = static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL];
    flags = onStep() ? flags | 0x100 : flags & ~0x100;
}

TEST_P(Board, ReportsATriggerAgainWhenARecordingStartsAtAnyMomentOfItsReport) {
    memory.assign(0x1000, 0xFFFF);  // voice on all lines
    board->doReadWrite(2 * number, &settings);
    takePackets();
    const auto all = static_cast<std::size_t>(lines);
    whenAllocating = [this] { board->clearTriggers(); };
    board->handleTriggers();
    whenAllocating = nullptr;
    board->handleTriggers();
    EXPECT_EQ(2 * all, takePackets().size()) << "cleared with the packets on their way";
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = step;
    sigaction(SIGTRAP, &action, nullptr);
    bool isCleared = true;
    for (int steps = 0; isCleared; ++steps) {
        int left = steps;
        onStep = [&] {
            left == 0 ? board->clearTriggers() : void();
            return left-- > 0;
        };
        raise(SIGTRAP);
        board->handleTriggers();
        isCleared = std::exchange(left, 0) < 0;
        board->handleTriggers();
        ASSERT_EQ(all, takePackets().size()) << "cleared after " << steps << " instructions";
    }
}

TEST_P(Board, BootsItsFirmwareAndStartsWithSilence) {
    const WorkingFolder folder;
    EXPECT_FALSE(board->bootload());
    folder.write(eight ? "LOAD_8CH.TXT" : "LOAD_4CH.TXT", "no\nsections\n");
    cards.onRead = [](int) { return 0x20u; };  // asks for each byte and takes it
    Words whenStarted;
    cards.onWrite = [&](int, std::uint32_t) { whenStarted = memory; };
    memory.assign(0x1000, 0xFFFF);
    memory[2] = 2;  // a command that the DSP has not wiped out
    board->doReadWrite(2 * number, &settings);
    takePackets();
    Words due = memory;
    for (const int start : {0, 0x800}) {
        const Words silent = silence();
        std::copy(silent.begin(), isPlayer ? silent.end() : silent.begin(),
                  due.begin() + start + layout.playbackAudio);
    }
    board->setLockedUp(true);
    console.take();
    EXPECT_TRUE(board->bootload());
    EXPECT_FALSE(board->isLockedUp());
    EXPECT_EQ(writes(base + 2, 0x1A), cards.accesses.back()) << "not started";
    EXPECT_EQ(due, whenStarted);
    EXPECT_EQ(due, memory);
    EXPECT_THAT(console.take().err,
                StartsWith(eight ? "DSPBoardEightChannel::bootload()\nBootload:LOAD_8CH.TXT\n"
                                 : "DSPBoardFourChannel::bootload()\nBootload:LOAD_4CH.TXT\n"));
    EXPECT_THAT(console.err, EndsWith(eight ? "\nSize of Transfer=3554\nSize of counter=4\n"
                                              "Size of Command=58\nSize of PortData=3492\n"
                                            : "\nSize of Transfer=4078\nSize of counter=4\n"
                                              "Size of Command=34\nSize of PortData=3540\n"));
    board->handleTriggers();
    EXPECT_EQ(static_cast<std::size_t>(lines), takePackets().size()) << "settings stay";
}

INSTANTIATE_TEST_SUITE_P(Cards, Board, Combine(Values(4, 8), Values(0, 1)));

TEST(BaseBoardDeathTest, DoesNothingOfItsOwnAndKnowsFourBuffers) {
    DSPBoard board(1, 4, nullptr, 4);
    for (const int buffer : {-1, 4}) {
        EXPECT_EXIT(DSPBoard::getOtherBufferNumber(buffer), ExitedWithCode(255),
                    "Buffer should be 0,1,2,3");
        EXPECT_FALSE(board.bufferOnThisBoard(buffer));
    }
    EXPECT_FALSE(board.bootload());
    ScriptedCards cards;
    Console console;
    DirectIO().allowPortAccess();
    board.doReadWrite(0, nullptr);
    DSPBoard::unlockBuffer(3);
    EXPECT_THAT(cards.accesses, ElementsAre(reads(0x314, 0), writes(0x314, 0x1A)));
    EXPECT_EQ(
        "doReadWrite should be overwritten \n"
        "PROBLEM! Unlocking a buffer which is not locked\n",
        console.take().out);
}

}  // namespace
