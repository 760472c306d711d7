// The library that the launcher puts in front of a program's own ones: makes the simulated PC when
// the program asks for port permission or one of the cards' devices for the first time, on the
// thread that asks. The PC lives as long as the process, since threads may use it until its last
// moment. One process of the tree gets the cards, every other one hears that they are in use.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <system_error>

#include "config/Configuration.h"
#include "config/SharedPage.h"
#include "model/Traffic.h"
#include "traps/Hardware.h"

namespace cardsim {

namespace {

constexpr std::chrono::seconds kTimeToEnd{3};

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

// Whether this process has the cards now. One that has put another program in its place, having
// had them, gets them anew.
bool claim(SharedPage& page) {
    int owner = 0;
    return page.owner.compare_exchange_strong(owner, getpid()) || owner == getpid();
}

// Lets machine time pass, signal handlers of the program or not, in a way that the traps do not
// take for a sleep.
void waitForReal(std::chrono::seconds duration) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + duration;
    while (Clock::now() < end) {
        poll(nullptr, 0, 10);
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

class PreloadedPc : public SimulatedPc {
  public:
    PreloadedPc(const Configuration& configuration, SharedPage& sharedPage)
        : SimulatedPc(withReport(configuration.pc, sharedPage)), page(sharedPage) {
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
            endAt(configuration.end_ms);
        }
    }

  private:
    static Options withReport(Options options, SharedPage& page) {
        options.report = &page.report;
        return options;
    }

    // Ends the program and lets nothing happen to the cards from here on: the thread never returns.
    void switchOff() override {
        page.timeIsOver = true;
        kill(getpid(), SIGTERM);
        waitForReal(kTimeToEnd);
        kill(getpid(), SIGKILL);
        waitForReal(std::chrono::hours(1));
    }

    SharedPage& page;
};

// Stands for a machine that cannot be had, and says once why.
class OutOfReach : public Hardware {
  public:
    OutOfReach(int error, const std::string& why) : reason(error) {
        std::fprintf(stderr, "cardsim: no simulated cards for process %d: %s\n",
                     static_cast<int>(getpid()), why.c_str());
    }

    std::uint32_t in(std::uint16_t, int) override { return ~std::uint32_t{0}; }
    void out(std::uint16_t, int, std::uint32_t) override {}
    int grantPorts() override { return refuse(); }
    int openPorts() override { return refuse(); }
    int openMemory() override { return refuse(); }
    bool sleep(std::uint64_t) override { return false; }
    bool processorTime(std::clock_t&) override { return false; }

  private:
    int refuse() const {
        errno = reason;
        return -1;
    }

    const int reason;
};

Hardware* makeHardware() {
    const char* const path = std::getenv(kSharedPageVariable);
    if (path == nullptr) {
        return new OutOfReach(ENODEV, "it was not started by the launcher");
    }
    try {
        std::string configuration;
        SharedPage& page = mapSharedPage(path, configuration);
        if (!claim(page)) {
            return new OutOfReach(EBUSY, "process " + std::to_string(page.owner) + " has them");
        }
        return new PreloadedPc(configurationFrom(configuration), page);
    } catch (const std::exception& error) {
        return new OutOfReach(ENODEV, error.what());
    }
}

void attach() {
    attachHardware(makeHardware());
}

// The parent keeps the cards; the child has to ask like any other process.
void loseCardsInChild() {
    attachHardware(nullptr);
    onFirstUse(attach);
}

__attribute__((constructor)) void prepare() {
    // A program that is ended by a signal takes with it what it has buffered; so it writes line by
    // line, as on a terminal.
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    onFirstUse(attach);
    pthread_atfork(nullptr, nullptr, loseCardsInChild);
}

}  // namespace

}  // namespace cardsim
