// The traps, with the instructions and calls that programs make: port instructions, port
// permission, /dev/port, sleeps and clock.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/io.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "ScriptedCards.h"
#include "pc/SimulatedPc.h"

extern "C" int __open_2(const char* path, int flags);

namespace {

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::KilledBySignal;

class Traps : public testing::Test {
  protected:
    // Deaths run in a fresh process: the fault handler is installed but once.
    Traps() {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        hardware.onRead = [this](int) { return answer; };
    }
    ScriptedCards hardware;
    std::uint32_t answer = 0xDDCCBBAA;
};

constexpr std::uint64_t kAccumulator = 0x1122334455667788;
// The upper half of edx is no part of the port.
constexpr std::uint32_t kPort = 0xFFFF0304;

TEST_F(Traps, CarryOutEveryFormOfPortInstruction) {
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    errno = 0;
    std::uint64_t byte = kAccumulator, word = kAccumulator, whole = kAccumulator;
    asm volatile("inb %%dx, %%al" : "+a"(byte) : "d"(kPort));
    asm volatile("inw %%dx, %%ax" : "+a"(word) : "d"(kPort));
    asm volatile("inl %%dx, %%eax" : "+a"(whole) : "d"(kPort));
    EXPECT_EQ(0x11223344556677AAu, byte);
    EXPECT_EQ(0x112233445566BBAAu, word);
    EXPECT_EQ(0x00000000DDCCBBAAu, whole);
    asm volatile("outb %%al, %%dx" : : "a"(kAccumulator), "d"(kPort));
    asm volatile("outw %%ax, %%dx" : : "a"(kAccumulator), "d"(kPort));
    asm volatile("outl %%eax, %%dx" : : "a"(kAccumulator), "d"(kPort));
    EXPECT_EQ(0xBBAA, inw(0x31E));
    EXPECT_EQ(0, errno);
    const PortAccess readIt = reads(0x304, answer);
    EXPECT_THAT(hardware.accesses,
                ElementsAre(readIt, readIt, readIt, writes(0x304, 0x88), writes(0x304, 0x7788),
                            writes(0x304, 0x55667788), reads(0x31E, answer)));
    EXPECT_EQ("1241242", hardware.widths);
}

TEST_F(Traps, GivePermissionToThePortsAndTheThreadThatAskedForThem) {
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
}

void touchForbiddenPage() {
    void* const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile int*>(page) = 1;
}

TEST_F(Traps, HandForeignFaultsOnToWhoeverStoodThereBefore) {
    struct sigaction informed {
    }, plain{}, standard{};
    informed.sa_flags = SA_SIGINFO;
    informed.sa_sigaction = [](int, siginfo_t* info, void* context) {
        _exit(info->si_code == SEGV_ACCERR && context != nullptr ? 42 : 1);
    };
    plain.sa_handler = [](int signal) { _exit(signal == SIGSEGV ? 43 : 1); };
    const auto faultAfter = [](const struct sigaction& before, auto fault) {
        sigaction(SIGSEGV, &before, nullptr);
        ioperm(0x300, 32, 1);
        inw(0x300);
        fault();
    };
    EXPECT_EXIT(faultAfter(informed, touchForbiddenPage), ExitedWithCode(42), "");
    EXPECT_EXIT(faultAfter(plain, touchForbiddenPage), ExitedWithCode(43), "");
    EXPECT_EXIT(faultAfter(standard, touchForbiddenPage), KilledBySignal(SIGSEGV), "");
    // A fault by the kernel's rules that is no port instruction, and one with the hardware gone.
    EXPECT_EXIT(faultAfter(plain, [] { asm volatile("hlt"); }), ExitedWithCode(43), "");
    const auto unplug = [] {
        cardsim::attachHardware(nullptr);
        inw(0x300);
    };
    EXPECT_EXIT(faultAfter(plain, unplug), ExitedWithCode(43), "");
}

TEST_F(Traps, TurnThePortDeviceAndNothingElseIntoPortAccessesByteByByte) {
    const int ports = __open_2("/dev/port", O_RDWR);
    const int other = open("/dev/port", O_RDWR);
    unsigned char bytes[3] = {};
    EXPECT_EQ(0x302, lseek(ports, 0x302, SEEK_SET));
    EXPECT_EQ(1, read(ports, bytes, 1));
    EXPECT_THAT(bytes, ElementsAre(0xAA, 0, 0));
    EXPECT_EQ(2, write(ports, "\x12\x34", 2));
    answer = 0x77;
    EXPECT_EQ(3, read(ports, bytes, 3));
    EXPECT_THAT(bytes, ElementsAre(0x77, 0x77, 0x77));
    std::vector<PortAccess> expected = {reads(0x302, 0xDDCCBBAA), writes(0x303, 0x12),
                                        writes(0x304, 0x34),      reads(0x305, 0x77),
                                        reads(0x306, 0x77),       reads(0x307, 0x77)};
    EXPECT_EQ(expected, hardware.accesses);
    EXPECT_EQ("111111", hardware.widths);
    // A copy stands where the first one does, and stays when that is closed.
    const int copy = dup(other);
    const int further = fcntl(ports, F_DUPFD, 0);
    EXPECT_EQ(copy, dup2(ports, copy));
    EXPECT_EQ(0, close(ports));
    EXPECT_EQ(0x308, lseek(copy, 0, SEEK_CUR));
    EXPECT_EQ(1, pwrite(copy, "\x56", 1, 0x30E));
    EXPECT_EQ(1, write(further, "\x78", 1));
    const iovec part{bytes, 1};
    EXPECT_EQ(-1, writev(other, &part, 1));
    expected.push_back(writes(0x30E, 0x56));
    expected.push_back(writes(0x308, 0x78));
    EXPECT_EQ(expected, hardware.accesses);
    for (const int fd : {copy, further, other}) {
        close(fd);
    }
    // A file that gets the number of a closed one is a plain file, made as it should be.
    const std::string path = testing::TempDir() + "traps-" + std::to_string(getpid());
    const int plain = open64(path.c_str(), O_RDWR | O_CREAT, 0600);
    struct stat status {};
    EXPECT_EQ(copy, plain);
    EXPECT_EQ(3, write(plain, "abc", 3));
    EXPECT_EQ(0, fstat(plain, &status));
    EXPECT_EQ(0600u, status.st_mode & 0777);
    close(plain);
    unlink(path.c_str());
    EXPECT_EQ(-1, open("/dev/ports", O_RDWR));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(expected, hardware.accesses);
}

TEST_F(Traps, OpenTheDevicesAsTheFlagsSayAndInNoOtherWay) {
    const int folder = open("/dev", O_PATH);
    for (const auto& [name, shared] : {std::pair("/dev/mem", MAP_SHARED), {"/dev/port", 0}}) {
        for (const int mode : {O_RDONLY, O_WRONLY, O_RDWR}) {
            const int file = openat(folder, name + 5, mode | O_TRUNC);
            const int closing = open64(name, mode | O_CLOEXEC);
            EXPECT_EQ(mode, fcntl(file, F_GETFL) & O_ACCMODE);
            EXPECT_EQ(0, fcntl(file, F_GETFD));
            EXPECT_EQ(FD_CLOEXEC, fcntl(closing, F_GETFD));
            char byte = 0;
            const auto errnoOf = [](ssize_t result) { return result == -1 ? errno : 0; };
            EXPECT_EQ(mode == O_WRONLY ? EBADF : 0, errnoOf(pread(file, &byte, 1, 0xD0300)));
            EXPECT_EQ(mode == O_RDONLY ? EBADF : 0, errnoOf(pwrite(file, &byte, 1, 0xD0300)));
            if (shared != 0) {
                void* const page = mmap(nullptr, 1, PROT_READ | PROT_WRITE, shared, file, 0xD0000);
                EXPECT_EQ(mode == O_RDWR ? 0 : EACCES, errnoOf(page == MAP_FAILED ? -1 : 0));
            }
            close(file);
            close(closing);
        }
        testing::internal::CaptureStderr();
        EXPECT_EQ(nullptr, fopen(name, "r"));
        EXPECT_EQ(ENODEV, errno);
        EXPECT_EQ(nullptr, freopen(name, "r", fopen("/dev/null", "r")));
        EXPECT_EQ(-1, creat(name, 0600));
        EXPECT_FALSE(std::ifstream("/dev/../dev/./" + std::string(name + 5)).is_open());
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::ContainsRegex("^cardsim: process [0-9]+ may not fopen " +
                                           std::string(name) + ": only open is simulated\n"));
    }
}

TEST_F(Traps, PassSleepsOfTheDrivingThreadOnInMicroseconds) {
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    const timespec time{2, 345'678'900};
    EXPECT_EQ(0, usleep(5));
    EXPECT_EQ(0u, sleep(3));
    EXPECT_EQ(0, nanosleep(&time, nullptr));
    EXPECT_EQ(0, clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr));
    std::this_thread::sleep_for(std::chrono::hours(1));
    for (const timespec& nonsense : {timespec{-1, 0}, {0, -1}, {0, 2'000'000'000}}) {
        EXPECT_EQ(-1, nanosleep(&nonsense, nullptr));
        EXPECT_EQ(EINVAL, errno);
    }
    // Until a time, on other threads and without hardware it is the machine's time that passes.
    const timespec past{0, 0};
    EXPECT_EQ(0, clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &past, nullptr));
    std::thread([] { usleep(1); }).join();
    cardsim::attachHardware(nullptr);
    EXPECT_EQ(0, usleep(1));
    EXPECT_NE(-1, clock());
    EXPECT_THAT(hardware.slept_us, ElementsAre(5, 3'000'000, 2'345'679, 2'345'679, 3'600'000'000));
}

TEST_F(Traps, RefuseUrgencyThatWouldStarveTheMachine) {
    const sched_param lowest{1}, none{0};
    for (const int policy : {SCHED_FIFO, SCHED_RR | SCHED_RESET_ON_FORK}) {
        EXPECT_EQ(EPERM, pthread_setschedparam(pthread_self(), policy, &lowest));
        EXPECT_EQ(-1, sched_setscheduler(0, policy, &lowest));
        EXPECT_EQ(EPERM, errno);
    }
    EXPECT_EQ(0, pthread_setschedparam(pthread_self(), SCHED_BATCH, &none));
    EXPECT_EQ(SCHED_BATCH, sched_getscheduler(0));
    EXPECT_EQ(0, sched_setscheduler(0, SCHED_OTHER, &none));
    EXPECT_EQ(SCHED_OTHER, sched_getscheduler(0));
    // In real time it is the C library that answers, here to nonsense.
    hardware.keepsTime = false;
    EXPECT_EQ(EINVAL, pthread_setschedparam(pthread_self(), SCHED_FIFO, &none));
}

TEST(SimulatedPc, EndsAProgramThatNeverEndsOutOfItsSleep) {
    cardsim::SimulatedPc pc(cardsim::SimulatedPc::Options::with(4));
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    pc.endAt(1000);
    std::thread([] { usleep(1000); }).join();
    EXPECT_EQ(0u, pc.now());
    inw(0x300);
    usleep(400'000);
    EXPECT_EQ(400'001u, pc.now());
    EXPECT_EQ(400'001, clock());
    for (const auto sleepOnce : {+[] { usleep(400'000); }, +[] { sleep(1); },
                                 +[] { std::this_thread::sleep_for(std::chrono::hours(1)); }}) {
        EXPECT_THROW((sleepOnce(), sleepOnce()), cardsim::PowerOff);
        EXPECT_EQ(1'000'000u, pc.now());
    }
}

}  // namespace
