// The library that the launcher puts in front of a program's own ones. Every process under the
// launcher may ask for port permission and the cards' devices; the one that touches a port first
// has the cards until it ends: it makes the simulated PC, on the thread that touches. The PC lives
// as long as the process, since threads may use it until its last moment. What other processes do
// to ports meanwhile reaches nobody.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "config/Configuration.h"
#include "config/SharedPage.h"
#include "model/Traffic.h"
#include "recorder/RecordingHardware.h"
#include "replay/ReplayedCards.h"
#include "traps/Hardware.h"
#include "traps/PortDevice.h"
#include "traps/Programs.h"

namespace cardsim {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// The launcher's page and the configuration behind it.
SharedPage& mapSharedPage(const char* path, std::string& configuration) {
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    struct stat status {};
    if (fd == -1 || fstat(fd, &status) != 0) {
        fail(path);
    }
    const auto length = static_cast<std::size_t>(status.st_size);
    void* const address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (address == MAP_FAILED) {
        fail(path);
    }
    auto& page = *static_cast<SharedPage*>(address);
    if (length < sizeof(SharedPage) || page.magic != SharedPage::kMagic ||
        page.configurationLength != length - sizeof(SharedPage)) {
        throw std::runtime_error("the launcher and the preload library are not of one build");
    }
    configuration.assign(static_cast<const char*>(address) + sizeof(SharedPage),
                         page.configurationLength);
    return page;
}

// Makes this process the one that has the cards until it ends, or finds out which one is: its
// number. The lock ends with the process, however it ends.
pid_t lockCards(const char* path) {
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd == -1) {
        fail(path);
    }
    while (true) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        if (fcntl(fd, F_SETLK, &whole) == 0) {
            return getpid();  // the descriptor stays: closing it would give the cards away
        }
        if (fcntl(fd, F_GETLK, &whole) == 0 && whole.l_type != F_UNLCK) {
            close(fd);
            return whole.l_pid;
        }
    }
}

class Speaker {
  public:
    explicit Speaker(const std::string& path)
        : fd(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)) {
        if (fd == -1) {
            fail(path);
        }
    }

    // Straight to the file: nothing is lost when the program is killed. May run in a signal
    // handler.
    void play(const char* bytes, std::size_t count) const {
        while (count > 0) {
            const ssize_t written = write(fd, bytes, count);
            if (written == -1 && errno != EINTR) {
                return;
            }
            const auto done = static_cast<std::size_t>(written == -1 ? 0 : written);
            bytes += done;
            count -= done;
        }
    }

  private:
    const int fd;
};

// Has the program ended and lets nothing happen to the cards from here on: the thread never
// returns.
[[noreturn]] void endRun(const SharedPage& page) {
    if (kill(page.launcher, SIGUSR1) != 0) {
        kill(getpid(), SIGKILL);
    }
    while (true) {
        poll(nullptr, 0, -1);
    }
}

class PreloadedPc : public SimulatedPc {
  public:
    PreloadedPc(const Configuration& configuration, const MemoryFile& cardMemory,
                SharedPage& sharedPage)
        : SimulatedPc(inPlace(configuration.pc, cardMemory, sharedPage)), page(sharedPage) {
        planScenario(cards(), configuration.events);
        if (configuration.traffic) {
            planTraffic(cards(), configuration.pc.seed);
        }
        if (!configuration.speakerFile.empty() && cards().isPresent(0)) {
            const Speaker speaker(configuration.speakerFile);
            card(0).connectSpeaker(
                [speaker](const char* bytes, std::size_t count) { speaker.play(bytes, count); });
        }
        if (configuration.end_ms != 0) {
            const std::uint64_t passed_ms = page.report.elapsed_us / 1000;
            endAt(configuration.end_ms - std::min(configuration.end_ms, passed_ms));
        }
    }

  private:
    static Options inPlace(Options options, const MemoryFile& cardMemory, SharedPage& page) {
        options.memory = &cardMemory;
        options.report = &page.report;
        return options;
    }

    void switchOff() override { endRun(page); }

    SharedPage& page;
};

// Stands for a machine that cannot be had, and says once why.
class OutOfReach : public Hardware {
  public:
    explicit OutOfReach(const std::string& why) {
        std::fprintf(stderr, "cardsim: no simulated cards for process %d: %s\n",
                     static_cast<int>(getpid()), why.c_str());
    }

    std::uint32_t in(std::uint16_t, int) override { return ~std::uint32_t{0}; }
    void out(std::uint16_t, int, std::uint32_t) override {}
    int grantPorts() override { return refuse(); }
    int openPorts() override { return refuse(); }
    std::string memoryPath() override {
        refuse();
        return "";
    }
    bool sleep(std::uint64_t) override { return false; }
    bool processorTime(std::clock_t&) override { return false; }

  private:
    static int refuse() {
        errno = ENODEV;
        return -1;
    }
};

// The hardware, or what records it in turn when the run is recorded. hasCards: right after an
// access through it.
Hardware& recorded(Hardware& hardware, const Configuration& configuration, const MemoryFile& memory,
                   SharedPage& page, const std::function<bool()>& hasCards) {
    if (configuration.ringFile.empty()) {
        return hardware;
    }
    static auto& ring = cardtrace::RecordRing::at(configuration.ringFile);
    const auto time = [&page] {
        return static_cast<const volatile std::uint64_t&>(page.report.elapsed_us);
    };
    return *new cardtrace::RecordingHardware(
        hardware, ring, {time, [&memory] { return memory.words(); }, hasCards});
}

// What a process has until it touches a port, and for as long as another one has the cards.
class WaitingPc : public Hardware {
  public:
    WaitingPc(const Configuration& plan, const MemoryFile& cardMemory, SharedPage& sharedPage,
              const char* pathOfPage)
        : configuration(plan), memory(cardMemory), page(sharedPage), path(pathOfPage) {}

    std::uint32_t in(std::uint16_t port, int bytes) override {
        Hardware* const cards = cardsOrNone();
        return cards == nullptr ? ~std::uint32_t{0} : cards->in(port, bytes);
    }
    void out(std::uint16_t port, int bytes, std::uint32_t value) override {
        if (Hardware* const cards = cardsOrNone()) {
            cards->out(port, bytes, value);
        }
    }
    int grantPorts() override { return 0; }
    int openPorts() override { return 0; }
    std::string memoryPath() override { return memory.path(); }
    // The time of the cards is not that of this process.
    bool sleep(std::uint64_t) override { return false; }
    bool processorTime(std::clock_t&) override { return false; }
    bool hasOwnTime() override { return configuration.pc.virtualTime; }

    bool hasCards() const { return owns; }

  private:
    // An access: by what it acts on the cards, or null when another process has them.
    Hardware* cardsOrNone() {
        const std::lock_guard<std::mutex> guard(lock);
        if (successor == nullptr) {
            tryForCards();
        }
        return successor;
    }

    void tryForCards() {
        try {
            const pid_t owner = lockCards(path.c_str());
            if (owner == getpid()) {
                successor = new PreloadedPc(configuration, memory, page);
                owns = true;
                Hardware& recorder =
                    recorded(*successor, configuration, memory, page, [] { return true; });
                if (&recorder != successor) {
                    static_cast<cardtrace::RecordingHardware&>(recorder).recordOwner(
                        static_cast<std::uint32_t>(getpid()));
                }
                attachHardware(&recorder);
                return;
            }
            ++page.strangerAccesses;
            tellOnce(owner);
        } catch (const std::exception& error) {
            successor = new OutOfReach(error.what());
            attachHardware(successor);
        }
    }

    void tellOnce(pid_t owner) {
        if (!std::exchange(told, true)) {
            std::fprintf(stderr,
                         "cardsim: process %d touched a port while process %d has the "
                         "cards: nobody answers it\n",
                         static_cast<int>(getpid()), static_cast<int>(owner));
        }
    }

    const Configuration configuration;
    const MemoryFile& memory;
    SharedPage& page;
    const std::string path;
    std::mutex lock;
    Hardware* successor = nullptr;  // what serves the process once it has touched a port
    std::atomic<bool> owns{false};
    bool told = false;
};

// A trace met again; by the first process that touches a port.
class PreloadedReplay : public cardtrace::ReplayedCards {
  public:
    PreloadedReplay(const Configuration& configuration, const MemoryFile& memory,
                    SharedPage& sharedPage, const char* pathOfPage)
        : ReplayedCards(mapScript(configuration.scriptFile),
                        surroundings(configuration, memory, sharedPage)),
          path(pathOfPage) {}

  private:
    static cardtrace::Script mapScript(const std::string& path) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status {};
        if (fd == -1 || fstat(fd, &status) != 0) {
            fail(path);
        }
        const auto length = static_cast<std::size_t>(status.st_size);
        void* const address = mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        if (address == MAP_FAILED) {
            fail(path);
        }
        return {address, length};
    }

    static Surroundings surroundings(const Configuration& configuration, const MemoryFile& memory,
                                     SharedPage& page) {
        Surroundings made;
        made.memory = memory.words();
        made.memoryPath = memory.path();
        made.virtualTime = configuration.pc.virtualTime;
        made.elapsed_us = &page.report.elapsed_us;
        made.accesses = &page.accessesReplayed;
        made.onDeviation = [&page](const cardtrace::Deviation& deviation) {
            page.deviation = deviation;
            page.replayEnd = ReplayEnd::kDeviation;
            endRun(page);
        };
        made.onEnd = [&page] {
            page.replayEnd = ReplayEnd::kWithTrace;
            endRun(page);
        };
        return made;
    }

    bool hasCards() override {
        if (owner != getpid()) {
            owner = lockCards(path.c_str());
        }
        return owner == getpid();
    }

    const std::string path;
    pid_t owner = 0;
};

Hardware* makeHardware() {
    const char* const path = std::getenv(kSharedPageVariable);
    if (path == nullptr) {
        return new OutOfReach("it was not started by the launcher");
    }
    try {
        std::string text;
        SharedPage& page = mapSharedPage(path, text);
        const Configuration configuration = configurationFrom(text);
        // Opened but once, before the program can lock it; a child has the mapping of its parent.
        // Never closed: threads may use the cards until the process's last moment.
        static const auto& memory = *new const MemoryFile(configuration.memoryFile);
        // All that there ever were, of a parent too.
        static auto& waiting = *new std::vector<Hardware*>;
        if (!configuration.scriptFile.empty()) {
            return waiting.emplace_back(new PreloadedReplay(configuration, memory, page, path));
        }
        auto& pc = *new WaitingPc(configuration, memory, page, path);
        waiting.push_back(&pc);
        Hardware& recorder =
            recorded(pc, configuration, memory, page, [&pc] { return pc.hasCards(); });
        if (&recorder != &pc) {
            waiting.push_back(&recorder);
        }
        return &recorder;
    } catch (const std::exception& error) {
        return new OutOfReach(error.what());
    }
}

// The system clock of every process of a run in virtual time: what has passed for the cards, since
// the beginning of 2026.
const MachineReport* clockwork = nullptr;

std::uint64_t virtualSystemTime() {
    constexpr std::uint64_t kStart_us = 1'767'225'600'000'000;
    return kStart_us + static_cast<const volatile std::uint64_t&>(clockwork->elapsed_us);
}

// What goes wrong here shows again, and is told, when the program asks for the cards.
void startSystemClock() {
    const char* const path = std::getenv(kSharedPageVariable);
    if (path == nullptr) {
        return;
    }
    try {
        std::string text;
        clockwork = &mapSharedPage(path, text).report;
        if (configurationFrom(text).pc.virtualTime) {
            replaceSystemClock(virtualSystemTime);
        }
    } catch (const std::exception&) {
        return;
    }
}

void attach() {
    attachHardware(makeHardware());
}

// The parent keeps the cards; the child is a process like any other.
void loseCardsInChild() {
    attachHardware(nullptr);
    onFirstUse(attach);
    cardtrace::forgetThreadNumber();
}

__attribute__((constructor)) void prepare() {
    // A program that is ended by a signal takes with it what it has buffered; so it writes line by
    // line, as on a terminal.
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    startSystemClock();
    keepForChildren("LD_PRELOAD");
    keepForChildren(kSharedPageVariable);
    inheritPortDevices();
    onFirstUse(attach);
    pthread_atfork(nullptr, nullptr, loseCardsInChild);
}

}  // namespace

}  // namespace cardsim
