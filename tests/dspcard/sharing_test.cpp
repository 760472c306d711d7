// What the driver shares with the rest of the PC: the console, which may stop taking lines, other
// processes, which may have the cards, and the processors.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>

#include <chrono>
#include <locale>
#include <thread>

#include "BoardMgr.h"
#include "ConsoleLine.h"
#include "DSPBootLoader.h"
#include "ScriptedCards.h"
#include "Surroundings.h"
#include "javaint/DSPRunner.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Takes the place of a stream; what is written waits, up to 4096 bytes, until it is read.
class FullPipe {
  public:
    explicit FullPipe(int descriptor) : stream(descriptor), before(dup(descriptor)) {
        EXPECT_EQ(0, pipe(ends));
        fcntl(ends[1], F_SETPIPE_SZ, 4096);
        dup2(ends[1], stream);
        close(ends[1]);
    }
    ~FullPipe() {
        dup2(before, stream);
        close(before);
        close(ends[0]);
    }
    // What comes within a quarter of a second after the last.
    std::string read() const {
        std::string text;
        pollfd waiting = {ends[0], POLLIN, 0};
        while (poll(&waiting, 1, 250) == 1) {
            char bytes[4096];
            text.append(bytes, static_cast<std::size_t>(::read(ends[0], bytes, sizeof bytes)));
        }
        return text;
    }

  private:
    const int stream, before;
    int ends[2] = {};
};

TEST(Runner, NeverWaitsForAConsoleAndTellsWhatItDidNotTake) {
    constexpr int kLines = 10'000;
    const FullPipe out(STDOUT_FILENO), err(STDERR_FILENO);
    std::cout << std::string(4095, '.') << std::endl;
    std::thread([&err] {
        console::handOverLinesOfThisThread();
        ConsoleLine(std::cout) << "line 0";
        ConsoleLine(std::cerr) << "passes";
        EXPECT_EQ("passes\n", err.read()) << "held up by the other stream";
        const auto start = std::chrono::steady_clock::now();
        for (int i = 1; i < kLines; ++i) {
            ConsoleLine(std::cout) << "line " << i;
        }
        ConsoleLine(std::cerr) << "dropped as well";
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    }).join();
    std::istringstream lines(out.read());
    std::string line;
    std::getline(lines, line);
    int next = 0;
    while (std::getline(lines, line)) {
        int dropped = 0;
        if (std::sscanf(line.c_str(), "dspcard: %d lines were dropped here", &dropped) == 1) {
            EXPECT_GT(next, 3000) << "the lines of a boot with hundreds of sections";
            next += dropped;
        } else {
            ASSERT_EQ("line " + std::to_string(next++), line);
        }
    }
    EXPECT_EQ(kLines, next);
    EXPECT_THAT(err.read(), HasSubstr("dspcard: 1 line was dropped here"));
}

TEST(RunnerDeathTest, TakesPrecedenceWritesWhatWaitsAtTheEndAndTellsWhatEndsIt) {
    const auto endAfterLines = [] {
        std::thread([] {
            console::handOverLinesOfThisThread();
            for (int i = 0; i < 100; ++i) {
                ConsoleLine(std::cerr) << "line " << i;
            }
        }).join();
        std::exit(0);
    };
    EXPECT_EXIT(endAfterLines(), testing::ExitedWithCode(0), "line 98\nline 99\n");
    const auto runOutOfMemory = [] {
        struct : ScriptedCards {
            bool sleep(std::uint64_t) override {
                const sched_param lowest = {1};
                const int policy = sched_getscheduler(0);
                sched_setscheduler(0, SCHED_FIFO, &lowest);
                const bool tookAll = policy == sched_getscheduler(0);
                throw std::runtime_error(tookAll ? "out of memory" : "no precedence");
            }
        } cards;
        cards.keepsTime = false;
        const FullPipe out(STDOUT_FILENO);
        std::cout << std::string(4095, '.') << std::endl;
        alarm(20);  // ends a runner that waits for its console
        DSPRunner::getInstance().startDSPs();
        pause();
    };
    EXPECT_EXIT(runOutOfMemory(), testing::KilledBySignal(SIGABRT),
                "dspcard: the thread that serves the cards failed: out of memory\n");
}

TEST(ConsoleLine, IsWrittenWholeAndReadsTheSameInEveryLocale) {
    struct Grouped : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    struct Pieces : std::streambuf {  // that are written
        std::streamsize xsputn(const char* text, std::streamsize count) override {
            all.emplace_back(text, static_cast<std::size_t>(count));
            return count;
        }
        std::vector<std::string> all;
    } pieces;
    const WorkingFolder folder;
    folder.write("CODE.BIN", std::string(8, '\1'));
    ScriptedCards cards;
    cards.onRead = [](int) { return 0x20u; };
    Console console;
    DirectIO().allowPortAccess();
    DSPBootloader loader;
    loader.init(0x300, 4, 0);
    const std::locale locale = std::locale::global(std::locale(std::locale(), new Grouped));
    std::streambuf* const terminal = std::cerr.rdbuf(&pieces);
    loader.bootSection(0x1F000, 4, "CODE.BIN");
    std::cerr.rdbuf(terminal);
    std::locale::global(locale);
    EXPECT_THAT(pieces.all,
                ElementsAre("Attempt Boot Section - addr: 126976 size: 4 sectionName: CODE.BIN\n",
                            "Boot section succeeded: CODE.BIN Checksum: 1028\n"));
}

// Another process that maps the cards' memory and keeps it until it is killed.
pid_t startOtherDriver() {
    const pid_t child = fork();
    if (child == 0) {
        static_cast<void>(DirectIO::getInstance().mapMemory(0xD0000, 0x4000));
        raise(SIGSTOP);
    }
    waitpid(child, nullptr, WUNTRACED);
    return child;
}

TEST(Claim, KeepsASecondProcessFromTouchingThePorts) {
    Console console;
    ScriptedCards cards;
    cards.echoes = {0x300, 0x310};
    const pid_t holder = startOtherDriver();
    EXPECT_EQ(0, BoardMgr::getInstance().getNumberOfBoards());
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_THAT(cards.accesses, ElementsAre());
    const std::string inUse =
        "Cards in use by process " + std::to_string(holder) + " (sharing_test)";
    EXPECT_THAT(reportsIn(takePackets()), ElementsAre(errorReport(4, inUse)));
    EXPECT_EQ(
        "Ports enabled OK\nDetected 0 boards\nBoard0 has -2 channels\nBoard1 has -2 channels\n"
        "ERROR! " +
            inUse + "\n",
        console.take().err);
}

TEST(Claim, IsHeldWhateverElseIsMappedOrUnmapped) {
    Console console;
    ScriptedCards cards;
    DirectIO hardware;
    ASSERT_NE(nullptr, hardware.mapMemory(0xD0000, 0x4000));
    EXPECT_EQ(nullptr, DirectIO().mapMemory(0xD0001, 0x4000)) << "not a page";
    hardware.unmapMemory();
    const pid_t child = fork();
    if (child == 0) {
        _exit(DirectIO().mapMemory(0xD0000, 0x4000) == nullptr ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(1, WEXITSTATUS(status)) << "another process could have them";
}

}  // namespace
