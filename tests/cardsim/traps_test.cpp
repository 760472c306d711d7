// The traps, with the instructions and calls that programs make: port instructions, port
// permission, /dev/port, /dev/mem, sleeps and clock.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include "pc/SimulatedPc.h"
#include "traps/Hardware.h"

extern "C" int __open_2(const char* path, int flags);

namespace {

using cardsim::PowerOff;
using cardsim::SimulatedPc;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::KilledBySignal;

// Answers every access from a pattern, and keeps a record. It also spoils errno, as any code may.
class Recorder : public cardsim::Hardware {
  public:
    Recorder() { cardsim::attachHardware(this); }
    ~Recorder() override { cardsim::attachHardware(nullptr); }

    std::uint32_t in(std::uint16_t port, int bytes) override {
        note("in", port, bytes, answer);
        return answer;
    }
    void out(std::uint16_t port, int bytes, std::uint32_t value) override {
        note("out", port, bytes, value);
    }
    int grantPorts() override { return fail(portsErrno); }
    int openPorts() override { return fail(portsErrno); }
    int openMemory() override { return fail(memoryErrno); }
    bool sleep(std::uint64_t microseconds) override {
        slept.push_back(microseconds);
        return true;
    }
    bool processorTime(std::clock_t&) override { return false; }

    std::uint32_t answer = 0xDDCCBBAA;
    std::vector<std::string> accesses;
    std::vector<std::uint64_t> slept;
    int portsErrno = 0;
    int memoryErrno = 0;

  private:
    void note(const char* what, int port, int bytes, std::uint32_t value) {
        char text[40];
        std::snprintf(text, sizeof text, "%s %x.%d %x", what, port, bytes, value);
        accesses.emplace_back(text);
        errno = ENOTTY;
    }
    static int fail(int number) {
        errno = number;
        return number == 0 ? 0 : -1;
    }
};

class Traps : public testing::Test {
  protected:
    // Deaths run in a fresh process: the fault handler is installed but once.
    Traps() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

constexpr std::uint64_t kAccumulator = 0x1122334455667788;
// The upper half of edx is no part of the port.
constexpr std::uint32_t kPort = 0xFFFF0304;

TEST_F(Traps, CarryOutEveryFormOfPortInstruction) {
    Recorder hardware;
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    errno = 0;
    std::uint64_t byte = kAccumulator;
    std::uint64_t word = kAccumulator;
    std::uint64_t whole = kAccumulator;
    asm volatile("inb %%dx, %%al" : "+a"(byte) : "d"(kPort));
    asm volatile("inw %%dx, %%ax" : "+a"(word) : "d"(kPort));
    asm volatile("inl %%dx, %%eax" : "+a"(whole) : "d"(kPort));
    EXPECT_EQ(0x11223344556677AAu, byte);
    EXPECT_EQ(0x112233445566BBAAu, word);
    EXPECT_EQ(0x00000000DDCCBBAAu, whole);
    asm volatile("outb %%al, %%dx" : : "a"(kAccumulator), "d"(kPort));
    asm volatile("outw %%ax, %%dx" : : "a"(kAccumulator), "d"(kPort));
    asm volatile("outl %%eax, %%dx" : : "a"(kAccumulator), "d"(kPort));
    outw(0x1234, 0x31E);
    EXPECT_EQ(0xBBAA, inw(0x31E));
    EXPECT_EQ(0, errno);
    EXPECT_THAT(
        hardware.accesses,
        ElementsAre("in 304.1 ddccbbaa", "in 304.2 ddccbbaa", "in 304.4 ddccbbaa", "out 304.1 88",
                    "out 304.2 7788", "out 304.4 55667788", "out 31e.2 1234", "in 31e.2 ddccbbaa"));
}

TEST_F(Traps, GivePermissionToThePortsAndTheThreadThatAskedForThem) {
    Recorder hardware;
    hardware.portsErrno = EPERM;
    EXPECT_EQ(-1, ioperm(0x300, 32, 1));
    EXPECT_EQ(EPERM, errno);
    hardware.portsErrno = 0;
    for (const auto& [from, count] :
         {std::pair(0x2FFul, 2ul), std::pair(0x300ul, 33ul), std::pair(0x31Ful, ~0ul),
          std::pair(0x300ul, 0ul), std::pair(~0ul - 5, 10ul)}) {
        EXPECT_EQ(-1, ioperm(from, count, 1));
        EXPECT_EQ(EINVAL, errno);
    }
    ASSERT_EQ(0, ioperm(0x300, 4, 1));
    EXPECT_EQ(0xBBAA, inw(0x302));
    EXPECT_DEATH(inw(0x303), "");
    EXPECT_DEATH(outw(0, 0x304), "");
    EXPECT_DEATH(std::thread([] { inw(0x300); }).join(), "");
    ASSERT_EQ(0, ioperm(0x302, 1, 0));
    EXPECT_EQ(0xAA, inb(0x303));
    EXPECT_DEATH(inw(0x302), "");
    EXPECT_EQ(2u, hardware.accesses.size());
}

void touchForbiddenPage() {
    void* const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile int*>(page) = 1;
}

TEST_F(Traps, HandForeignFaultsOnToWhoeverStoodThereBefore) {
    Recorder hardware;
    const auto install = [](auto prepare) {
        struct sigaction action {};
        prepare(action);
        sigaction(SIGSEGV, &action, nullptr);
        ioperm(0x300, 32, 1);
        inw(0x300);
    };
    const auto informed = [](struct sigaction& action) {
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t* info, void* context) {
            _exit(info->si_code == SEGV_ACCERR && context != nullptr ? 42 : 1);
        };
    };
    const auto plain = [](struct sigaction& action) {
        action.sa_handler = [](int signal) { _exit(signal == SIGSEGV ? 43 : 1); };
    };
    const auto standard = [](struct sigaction& action) { action.sa_handler = SIG_DFL; };
    EXPECT_EXIT((install(informed), touchForbiddenPage()), ExitedWithCode(42), "");
    EXPECT_EXIT((install(plain), touchForbiddenPage()), ExitedWithCode(43), "");
    EXPECT_EXIT((install(standard), touchForbiddenPage()), KilledBySignal(SIGSEGV), "");
    // A fault by the kernel's rules that is no port instruction, and one with the hardware gone.
    EXPECT_EXIT(
        {
            install(plain);
            asm volatile("hlt");
        },
        ExitedWithCode(43), "");
    EXPECT_EXIT(
        {
            install(plain);
            cardsim::attachHardware(nullptr);
            inw(0x300);
        },
        ExitedWithCode(43), "");
}

TEST_F(Traps, TurnThePortDeviceIntoPortAccessesByteByByte) {
    Recorder hardware;
    hardware.portsErrno = EACCES;
    EXPECT_EQ(-1, open("/dev/port", O_RDWR));
    EXPECT_EQ(EACCES, errno);
    hardware.portsErrno = 0;
    const int ports = open("/dev/port", O_RDWR);
    const int others = __open_2("/dev/port", O_RDWR);
    ASSERT_NE(-1, ports);
    ASSERT_NE(-1, others);
    unsigned char bytes[3] = {};
    EXPECT_EQ(0x302, lseek(ports, 0x302, SEEK_SET));
    EXPECT_EQ(1, read(ports, bytes, 1));
    EXPECT_EQ(0xAA, bytes[0]);
    EXPECT_EQ(2, write(ports, "\x12\x34", 2));
    EXPECT_EQ(0x305, lseek(ports, 0, SEEK_CUR));
    EXPECT_EQ(0, lseek(others, 0, SEEK_CUR));
    hardware.answer = 0x77;
    lseek(others, 0x310, SEEK_SET);
    EXPECT_EQ(3, read(others, bytes, 3));
    EXPECT_THAT(bytes, ElementsAre(0x77, 0x77, 0x77));
    EXPECT_THAT(hardware.accesses, ElementsAre("in 302.1 ddccbbaa", "out 303.1 12", "out 304.1 34",
                                               "in 310.1 77", "in 311.1 77", "in 312.1 77"));
    EXPECT_EQ(0, close(others));
    EXPECT_EQ(0, close(ports));
    EXPECT_EQ(-1, close(ports));
    // A file that gets the number of a closed one is a plain file.
    const int plain = open("/dev/zero", O_RDWR);
    EXPECT_EQ(std::min(ports, others), plain);
    EXPECT_EQ(1, read(plain, bytes, 1));
    EXPECT_EQ(0, bytes[0]);
    close(plain);
    EXPECT_EQ(6u, hardware.accesses.size());
}

TEST_F(Traps, LeaveEverythingElseToTheMachine) {
    Recorder hardware;
    hardware.memoryErrno = EPERM;
    EXPECT_EQ(-1, open("/dev/mem", O_RDWR));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(-1, open("/dev/ports", O_RDWR));
    EXPECT_EQ(ENOENT, errno);
    const std::string path = testing::TempDir() + "traps-" + std::to_string(getpid());
    const int file = open64(path.c_str(), O_RDWR | O_CREAT, 0600);
    EXPECT_EQ(3, write(file, "abc", 3));
    EXPECT_EQ(0, close(file));
    EXPECT_EQ(0, unlink(path.c_str()));
    cardsim::attachHardware(nullptr);
    EXPECT_EQ(0, usleep(1));
    EXPECT_NE(-1, clock());
    EXPECT_TRUE(hardware.slept.empty() && hardware.accesses.empty());
}

TEST_F(Traps, PassSleepsOfTheDrivingThreadOnInMicroseconds) {
    Recorder hardware;
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    const timespec time{2, 345'678'900};
    EXPECT_EQ(0, usleep(5));
    EXPECT_EQ(0u, sleep(3));
    EXPECT_EQ(0, nanosleep(&time, nullptr));
    EXPECT_EQ(0, clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr));
    std::this_thread::sleep_for(std::chrono::hours(1));
    const std::vector<std::uint64_t> expected = {5, 3'000'000, 2'345'679, 2'345'679, 3'600'000'000};
    EXPECT_EQ(expected, hardware.slept);
    for (const timespec& nonsense : {timespec{-1, 0}, {0, -1}, {0, 2'000'000'000}}) {
        EXPECT_EQ(-1, nanosleep(&nonsense, nullptr));
        EXPECT_EQ(EINVAL, errno);
    }
    // Until a time, and on other threads, it is the machine's time that passes.
    const timespec past{0, 0};
    EXPECT_EQ(0, clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &past, nullptr));
    std::thread([] { usleep(1); }).join();
    EXPECT_EQ(expected, hardware.slept);
}

TEST(SimulatedPc, EndsAProgramThatNeverEndsOutOfItsSleep) {
    SimulatedPc pc(SimulatedPc::Options{});
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    pc.endAt(1000);
    std::thread([] { usleep(1000); }).join();
    EXPECT_EQ(0u, pc.now());
    const auto sleeps = {+[] { usleep(400'000); },
                         +[] { std::this_thread::sleep_for(std::chrono::hours(1)); },
                         +[] { sleep(1); }};
    inw(0x300);
    EXPECT_NO_THROW((*sleeps.begin())());
    EXPECT_EQ(400'001u, pc.now());
    EXPECT_EQ(400'001, clock());
    for (const auto sleepOnce : sleeps) {
        EXPECT_THROW(
            while (true) { sleepOnce(); }, PowerOff);
        EXPECT_EQ(1'000'000u, pc.now());
    }
}

}  // namespace
