// The traps, with the instructions and calls that programs make.
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

TEST_F(Traps, CarryOutEveryFormOfPortInstruction) {
    constexpr std::uint64_t kBefore = 0x1122334455667788;
    constexpr std::uint32_t kPort = 0xFFFF0304;  // the upper half of edx is no part of the port
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    errno = 0;
    std::uint64_t byte = kBefore, word = kBefore, whole = kBefore;
    asm volatile("inb %%dx, %%al" : "+a"(byte) : "d"(kPort));
    asm volatile("inw %%dx, %%ax" : "+a"(word) : "d"(kPort));
    asm volatile("inl %%dx, %%eax" : "+a"(whole) : "d"(kPort));
    EXPECT_THAT((std::vector{byte, word, whole}),
                ElementsAre(0x11223344556677AA, 0x112233445566BBAA, 0x00000000DDCCBBAA));
    asm volatile("outb %%al, %%dx" : : "a"(kBefore), "d"(kPort));
    asm volatile("outw %%ax, %%dx" : : "a"(kBefore), "d"(kPort));
    asm volatile("outl %%eax, %%dx" : : "a"(kBefore), "d"(kPort));
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
         {std::pair(0x2FFul, 2ul), {0x300, 33}, {0x31F, ~0ul}, {0x300, 0}, {~0ul - 5, 10}}) {
        EXPECT_EQ(-1, ioperm(from, count, 1));
        EXPECT_EQ(EINVAL, errno);
    }
    ASSERT_EQ(0, ioperm(0x300, 4, 1));
    EXPECT_EQ(0xBBAA, inw(0x302));
    EXPECT_DEATH(inw(0x303), "");
    EXPECT_DEATH(std::thread([] { inw(0x300); }).join(), "");
    ASSERT_EQ(0, ioperm(0x302, 1, 0));
    EXPECT_EQ(0xAA, inb(0x303));
    EXPECT_DEATH(inw(0x302), "");
}

TEST_F(Traps, HandForeignFaultsOnToWhoeverStoodThereBefore) {
    const auto faultAfter = [](auto handler, auto fault) {
        struct sigaction before {};
        if constexpr (std::is_invocable_v<decltype(handler), int, siginfo_t*, void*>) {
            before.sa_flags = SA_SIGINFO;
            before.sa_sigaction = handler;
        } else {
            before.sa_handler = handler;
        }
        sigaction(SIGSEGV, &before, nullptr);
        ioperm(0x300, 32, 1);
        inw(0x300);
        fault();
    };
    const auto informed = +[](int, siginfo_t* info, void* context) {
        _exit(info->si_code == SEGV_ACCERR && context != nullptr ? 42 : 1);
    };
    const auto plain = +[](int signal) { _exit(signal == SIGSEGV ? 43 : 1); };
    const auto touchForbiddenPage = [] {
        *static_cast<volatile int*>(
            mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
    };
    // A fault by the kernel's rules that is no port instruction, and one with the hardware gone.
    const auto halt = [] { asm volatile("hlt"); };
    const auto unplug = [] { cardsim::attachHardware(nullptr), inw(0x300); };
    EXPECT_EXIT(faultAfter(informed, touchForbiddenPage), ExitedWithCode(42), "");
    EXPECT_EXIT(faultAfter(SIG_DFL, touchForbiddenPage), testing::KilledBySignal(SIGSEGV), "");
    EXPECT_EXIT(faultAfter(plain, halt), ExitedWithCode(43), "");
    EXPECT_EXIT(faultAfter(plain, unplug), ExitedWithCode(43), "");
}

TEST_F(Traps, TurnThePortDeviceAndItsCopiesIntoPortAccessesByteByByte) {
    const int ports = __open_2("/dev/port", O_RDWR);
    const int other = open("/dev/port", O_RDWR);
    unsigned char bytes[3] = {};
    EXPECT_EQ(0x302, lseek(ports, 0x302, SEEK_SET));
    EXPECT_EQ(1, read(ports, bytes, 1));
    EXPECT_EQ(2, write(ports, "\x12\x34", 2));
    EXPECT_THAT(bytes, ElementsAre(0xAA, 0, 0));
    answer = 0x77;
    const int copy = dup(other);
    const int further = fcntl(ports, F_DUPFD, 0);
    EXPECT_EQ(copy, dup2(ports, copy));
    EXPECT_EQ(0, close(ports));
    EXPECT_EQ(3, read(copy, bytes, 3));
    EXPECT_THAT(bytes, ElementsAre(0x77, 0x77, 0x77));
    EXPECT_EQ(1, pwrite(copy, "\x56", 1, 0x30E));
    EXPECT_EQ(1, write(further, "\x78", 1));
    const iovec part{bytes, 1};
    EXPECT_EQ(-1, writev(other, &part, 1));
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
    EXPECT_THAT(hardware.accesses,
                ElementsAre(reads(0x302, 0xDDCCBBAA), writes(0x303, 0x12), writes(0x304, 0x34),
                            reads(0x305, 0x77), reads(0x306, 0x77), reads(0x307, 0x77),
                            writes(0x30E, 0x56), writes(0x308, 0x78)));
    EXPECT_EQ("11111111", hardware.widths);
}

TEST_F(Traps, OpenTheDevicesAsTheFlagsSayAndInNoOtherWay) {
    errno = -1;
    const auto errnoOf = [](bool works) { return works ? 0 : std::exchange(errno, -1); };
    const int folder = open("/dev", O_PATH);
    for (const std::string name : {"mem", "port"}) {
        const std::string path = "/dev/" + name;
        for (const int mode : {O_RDONLY, O_WRONLY, O_RDWR}) {
            const int file = openat(folder, name.c_str(), mode | O_TRUNC);
            const int closing = open64(path.c_str(), mode | O_CLOEXEC);
            EXPECT_EQ(0, fcntl(file, F_GETFD)) << path;
            EXPECT_EQ(FD_CLOEXEC, fcntl(closing, F_GETFD));
            char byte = 0;
            EXPECT_EQ(mode == O_WRONLY ? EBADF : 0, errnoOf(pread(file, &byte, 1, 0xD0300) == 1));
            EXPECT_EQ(mode == O_RDONLY ? EBADF : 0, errnoOf(pwrite(file, &byte, 1, 0xD0300) == 1));
            void* const page = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0xD0000);
            EXPECT_EQ(mode == O_RDWR && name == "mem", page != MAP_FAILED);
            close(file);
            close(closing);
        }
        testing::internal::CaptureStderr();
        EXPECT_EQ(nullptr, fopen(path.c_str(), "r"));
        EXPECT_EQ(ENODEV, errno);
        EXPECT_EQ(nullptr, freopen(path.c_str(), "r", fopen("/dev/null", "r")));
        EXPECT_FALSE(std::ifstream("/dev/../dev/./" + name).is_open());
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::HasSubstr(" may not fopen " + path + ": only open is simulated\n"));
    }
}

TEST_F(Traps, PassSleepsOfTheDrivingThreadOnInMicroseconds) {
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    const timespec time{2, 345'678'900}, past{0, 0};
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
    }
    EXPECT_EQ(0, pthread_setschedparam(pthread_self(), SCHED_BATCH, &none));
    EXPECT_EQ(SCHED_BATCH, sched_getscheduler(0));
    EXPECT_EQ(0, sched_setscheduler(0, SCHED_OTHER, &none));
    // In real time it is the C library that answers, here to nonsense.
    hardware.keepsTime = false;
    EXPECT_EQ(EINVAL, pthread_setschedparam(pthread_self(), SCHED_FIFO, &none));
}

TEST(SimulatedPc, EndsAProgramThatNeverEndsOutOfItsSleep) {
    cardsim::SimulatedPc pc(cardsim::SimulatedPc::Options::with(4));
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    pc.endAt(1000);
    inw(0x300);
    usleep(400'000);
    EXPECT_EQ(400'001u, pc.now());
    EXPECT_EQ(400'001, clock());
    for (int time = 0; time < 2; ++time) {
        EXPECT_THROW(std::this_thread::sleep_for(std::chrono::microseconds(599'999)),
                     cardsim::PowerOff);
        EXPECT_EQ(1'000'000u, pc.now());
    }
}

}  // namespace
