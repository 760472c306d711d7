// A program that uses the cards step by step, for the launcher's tests: card_user NAME STEP...
// It prints NAME, the step and its answer. Who has locked the cards' memory, and its first word,
// which becomes 7; data and device read 0 while the DSP is held and 255 when it runs; a fork lets
// the child do all further steps first.
#include <fcntl.h>
#include <signal.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <thread>

namespace {

std::string memory() {
    struct flock region = {F_WRLCK, SEEK_SET, 0xD0000, 0x4000, 0};
    const int file = open("/dev/mem", O_RDWR);
    const bool locked = fcntl(file, F_SETLK, &region) == 0;
    fcntl(file, F_GETLK, &region);
    void* const words = mmap(nullptr, 0x4000, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0xD0000);
    const int before = *static_cast<volatile short*>(words);
    *static_cast<volatile short*>(words) = 7;
    return (locked ? "locked " : std::to_string(region.l_pid) + ' ') + std::to_string(before);
}

std::string device() {
    unsigned char byte = 0;
    const int ports = open("/dev/port", O_RDWR);
    return pread(ports, &byte, 1, 0x300) == 1 ? std::to_string(byte) : "none";
}

std::string name;
const std::map<std::string, std::function<std::string()>> kSteps = {
    {"ask", [] { return ioperm(0x300, 32, 1) == 0 ? "granted" : strerrorname_np(errno); }},
    {"memory", memory},
    {"data", [] { return std::to_string(inw(0x300)); }},
    {"device", device},
    {"run", [] { return outw(0x1A, 0x302), "done"; }},
    {"fork", [] { return name = fork() == 0 ? "child" : (wait(nullptr), "parent"); }},
    {"hold", [] { return std::to_string(std::cin.get()); }},
    {"abort", [] { return std::to_string(raise(SIGABRT)); }},
    {"stubborn", [] { return signal(SIGTERM, [](int) {}) == SIG_DFL ? "done" : "already"; }},
    {"sleep", [] { return std::this_thread::sleep_for(std::chrono::hours(1)), "done"; }},
};

}  // namespace

int main(int, char** argv) {
    name = argv[1];
    for (char** step = argv + 2; *step != nullptr; ++step) {
        const std::string answer = kSteps.at(*step)();
        std::cout << name << ' ' << *step << ' ' << answer << std::endl;
    }
}
