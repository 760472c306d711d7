// The traps, with the instructions and calls that programs make.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/io.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "ScriptedCards.h"

extern "C" int __open_2(const char* path, int flags);

namespace {

using namespace testing;

class Traps : public Test {
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
    constexpr auto kBefore = static_cast<unsigned long>(0x1122334455667788);
    constexpr std::uint32_t kPort = 0xFFFF0304;  // the upper half of edx is no part of the port
    ASSERT_EQ(0, ioperm(0x300, 32, 1));
    errno = 0;
    unsigned long byte = kBefore, word = kBefore, whole = kBefore;
    asm volatile("inb %%dx, %%al" : "+a"(byte) : "d"(kPort));
    asm volatile("inw %%dx, %%ax" : "+a"(word) : "d"(kPort));
    asm volatile("inl %%dx, %%eax" : "+a"(whole) : "d"(kPort));
    EXPECT_THAT((std::vector{byte, word, whole}),
                ElementsAre(kBefore - 0x88 + 0xAA, kBefore - 0x7788 + 0xBBAA, 0xDDCCBBAA));
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
    const auto touchForbiddenPage = [] {
        *static_cast<volatile int*>(
            mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
    };
    // A fault by the kernel's rules that is no port instruction, and one with the hardware gone.
    const auto unplug = [] { cardsim::attachHardware(nullptr), inw(0x300); };
    EXPECT_EXIT(faultAfter(informed, touchForbiddenPage), ExitedWithCode(42), "");
    EXPECT_EXIT(faultAfter(standard, touchForbiddenPage), KilledBySignal(SIGSEGV), "");
    EXPECT_EXIT(faultAfter(plain, [] { asm volatile("hlt"); }), ExitedWithCode(43), "");
    EXPECT_EXIT(faultAfter(plain, unplug), ExitedWithCode(43), "");
}

TEST_F(Traps, TurnThePortDeviceAndItsCopiesIntoPortAccessesByteByByte) {
    const int ports = __open_2("/dev/port", O_RDWR), other = open("/dev/port", O_RDWR);
    unsigned char bytes[3] = {};
    EXPECT_EQ(0x302, lseek(ports, 0x302, SEEK_SET));
    EXPECT_EQ(1, read(ports, bytes, 1));
    EXPECT_EQ(2, write(ports, "\x12\x34", 2));
    const int copy = dup(other), further = fcntl(ports, F_DUPFD, 0);
    EXPECT_EQ(copy, dup2(ports, copy));
    EXPECT_EQ(0, close(ports));
    EXPECT_EQ(3, read(copy, bytes, 3));
    EXPECT_THAT(bytes, Each(0xAA));
    EXPECT_EQ(1, pwrite(copy, "\x56", 1, 0x30E));
    EXPECT_EQ(1, write(further, "\x78", 1));
    const PortAccess due[] = {reads(0x302, answer), writes(0x303, 0x12),  writes(0x304, 0x34),
                              reads(0x305, answer), reads(0x306, answer), reads(0x307, answer),
                              writes(0x30E, 0x56),  writes(0x308, 0x78)};
    EXPECT_THAT(hardware.accesses, ElementsAreArray(due));
    close(copy);
    // A file that gets the number of a closed one is a plain file, made as it should be.
    const std::string path = TempDir() + "traps-" + std::to_string(getpid());
    const int plain = open64(path.c_str(), O_RDWR | O_CREAT, 0600);
    struct stat status {};
    EXPECT_EQ(copy, plain);
    EXPECT_EQ(3, write(plain, "abc", 3));
    EXPECT_EQ(0, fstat(plain, &status));
    EXPECT_EQ(0600u, status.st_mode & 0777);
    unlink(path.c_str());
    EXPECT_EQ(-1, open("/dev/ports", O_RDWR));
}

TEST_F(Traps, OpenTheDevicesAsTheFlagsSayAndInNoOtherWay) {
    const auto errnoOf = [](bool works) { return works ? 0 : errno; };
    const int folder = open("/dev", O_PATH);
    char byte = 0;
    for (const std::string name : {"mem", "port"}) {
        const std::string path = "/dev/" + name;
        const off_t place = name == "mem" ? 0xD0300 : 0x300;
        for (const int mode : {O_RDONLY, O_WRONLY, O_RDWR}) {
            const int file = openat(folder, name.c_str(), mode | O_TRUNC);
            EXPECT_EQ(0, fcntl(file, F_GETFD));
            EXPECT_EQ(FD_CLOEXEC, fcntl(open64(path.c_str(), mode | O_CLOEXEC), F_GETFD));
            EXPECT_EQ(mode == O_WRONLY ? EBADF : 0, errnoOf(pread(file, &byte, 1, place) == 1));
            EXPECT_EQ(mode == O_RDONLY ? EBADF : 0, errnoOf(pwrite(file, &byte, 1, place) == 1));
            void* const page = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0xD0000);
            EXPECT_EQ(mode == O_RDWR && name == "mem", page != MAP_FAILED);
        }
        internal::CaptureStderr();
        EXPECT_EQ(nullptr, fopen(path.c_str(), "r"));
        EXPECT_EQ(ENODEV, errno);
        EXPECT_EQ(nullptr, freopen(path.c_str(), "r", fopen("/dev/null", "r")));
        EXPECT_FALSE(std::ifstream("/dev/../dev/./" + name).is_open());
        EXPECT_THAT(internal::GetCapturedStderr(),
                    HasSubstr(" may not fopen " + path + ": only open is served\n"));
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
        EXPECT_EQ(EINVAL, clock_nanosleep(CLOCK_MONOTONIC, 0, &nonsense, nullptr));
    }
    // Until a time, on other threads and without hardware it is the machine's time that passes.
    EXPECT_EQ(0, clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &past, nullptr));
    std::thread([] { usleep(1); }).join();
    cardsim::attachHardware(nullptr);
    EXPECT_EQ(0, usleep(1));
    EXPECT_THAT(hardware.slept_us, ElementsAre(5, 3'000'000, 2'345'679, 2'345'679, 3'600'000'000));
}

TEST_F(Traps, RefuseUrgencyThatWouldStarveTheMachine) {
    const sched_param lowest{1}, none{0};
    EXPECT_EQ(EPERM,
              pthread_setschedparam(pthread_self(), SCHED_RR | SCHED_RESET_ON_FORK, &lowest));
    EXPECT_EQ(-1, sched_setscheduler(0, SCHED_FIFO, &lowest));
    EXPECT_EQ(0, pthread_setschedparam(pthread_self(), SCHED_BATCH, &none));
    // In real time it is the C library that answers, here to nonsense.
    hardware.keepsTime = false;
    EXPECT_EQ(EINVAL, pthread_setschedparam(pthread_self(), SCHED_FIFO, &none));
}

}  // namespace
