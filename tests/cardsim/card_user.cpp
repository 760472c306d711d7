// A program that uses the cards: card_user NAME STEP... prints NAME, each step and its answer.
// memory: who has locked it, and its first word, which becomes 7; data and device are 0 while the
// DSP is held and 255 when it runs; a fork lets the child do all further steps first.
#include <fcntl.h>
#include <signal.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <iostream>
#include <map>
#include <utility>

namespace {

std::string memory() {
    struct flock region = {F_WRLCK, SEEK_SET, 0xD0000, 0x4000, 0};
    const int file = open("/dev/mem", O_RDWR);
    const bool locked = fcntl(file, F_SETLK, &region) == 0;
    fcntl(file, F_GETLK, &region);
    auto* const word = static_cast<volatile short*>(
        mmap(nullptr, 0x4000, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0xD0000));
    const int before = std::exchange(*word, short{7});
    return (locked ? "locked " : std::to_string(region.l_pid) + ' ') + std::to_string(before);
}

std::string device() {
    unsigned char byte = 0;
    return pread(open("/dev/port", O_RDWR), &byte, 1, 0x300) == 1 ? std::to_string(byte) : "none";
}

// An hour's sleep: so many seconds have really passed.
std::string doze() {
    using std::chrono::steady_clock;
    const auto start = steady_clock::now();
    sleep(3600);
    return std::to_string((steady_clock::now() - start) / std::chrono::seconds(1));
}

std::string name;
const std::map<std::string, std::function<std::string()>> kSteps = {
    {"ask", [] { return ioperm(0x300, 32, 1) == 0 ? "granted" : strerrorname_np(errno); }},
    {"memory", memory},
    {"data", [] { return std::to_string(inw(0x300)); }},
    {"thread",
     [] {
         return std::async(std::launch::async, [] { return std::to_string(inw(0x300)); }).get();
     }},
    {"device", device},
    {"run", [] { return outw(0x1A, 0x302), "done"; }},
    {"fork", [] { return name = fork() == 0 ? "child" : (wait(nullptr), "parent"); }},
    {"hold", [] { return std::to_string(std::cin.get()); }},
    {"abort", [] { return std::to_string(raise(SIGABRT)); }},
    {"stubborn", [] { return signal(SIGTERM, SIG_IGN) == SIG_DFL ? "done" : "already"; }},
    {"sleep", [] { return std::to_string(sleep(3600)); }},
    {"date", [] { return std::to_string(time(nullptr)); }},
    {"doze", doze},
};

}  // namespace

int main(int, char** argv) {
    name = argv[1];
    for (char** step = argv + 2; *step != nullptr; ++step) {
        const std::string answer = kSteps.at(*step)();
        std::cout << name << ' ' << *step << ' ' << answer << std::endl;
    }
}
