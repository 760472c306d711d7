// A program that uses the cards step by step, for the launcher's tests: card_user NAME STEP...
// It prints NAME, the step and its outcome; the steps are
//   ask      asks for port permission
//   memory   opens the cards' memory, locks it and maps it: who has the lock, the first word; the
//            word becomes 7
//   data     reads the data port of card 0: 0 while the DSP is held, 255 when it runs
//   device   the same through /dev/port
//   run      lets the DSP run
//   fork     a child does all the other steps first
//   hold     waits for the end of its input
//   abort    ends by a signal
//   sleep    sleeps for ever and is not to be ended
#include <fcntl.h>
#include <signal.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

namespace {

std::string ask() {
    return ioperm(0x300, 32, 1) == 0 ? "granted" : strerrorname_np(errno);
}

std::string memory() {
    const int file = open("/dev/mem", O_RDWR);
    struct flock region {};
    region.l_type = F_WRLCK;
    region.l_start = 0xD0000;
    region.l_len = 0x4000;
    const bool locked = fcntl(file, F_SETLK, &region) == 0;
    fcntl(file, F_GETLK, &region);
    void* const words = mmap(nullptr, 0x4000, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0xD0000);
    const int before = std::exchange(*static_cast<volatile short*>(words), 7);
    return (locked ? "locked" : "of " + std::to_string(region.l_pid)) + " " +
           std::to_string(before);
}

std::string device() {
    unsigned char byte = 0;
    const int ports = open("/dev/port", O_RDWR);
    return ports != -1 && lseek(ports, 0x300, SEEK_SET) == 0x300 && read(ports, &byte, 1) == 1
               ? std::to_string(byte)
               : strerrorname_np(errno);
}

std::string take(const std::string& step) {
    if (step == "ask") {
        return ask();
    }
    if (step == "memory") {
        return memory();
    }
    if (step == "data") {
        return std::to_string(inw(0x300));
    }
    if (step == "device") {
        return device();
    }
    if (step == "run") {
        outw(0x1A, 0x302);
    } else if (step == "hold") {
        std::cin.ignore(1);
    } else if (step == "abort") {
        std::abort();
    }
    return "done";
}

}  // namespace

int main(int, char** argv) {
    std::string name = argv[1];
    for (char** step = argv + 2; *step != nullptr; ++step) {
        if (*step == std::string("fork")) {
            name = fork() == 0 ? "child" : (wait(nullptr), "parent");
        } else if (*step == std::string("sleep")) {
            signal(SIGTERM, [](int) {});
            while (true) {
                usleep(10'000);
            }
        } else {
            std::cout << name << ' ' << *step << ' ' << take(*step) << std::endl;
        }
    }
}
