// A small program that asks for the cards, for the launcher's tests: card_user WAY
//   ask       prints what port permission answers
//   share     has the cards, and lets a child and another program ask
//   crash     has the cards, uses a port and aborts
//   stubborn  has the cards, and sleeps on whatever it is told
#include <signal.h>
#include <sys/io.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned short kStatus = 0x302;

void ask(const char* who) {
    const bool granted = ioperm(0x300, 32, 1) == 0;
    std::printf("%s: %s\n", who, granted ? "granted" : strerrorname_np(errno));
    std::fflush(stdout);
}

void share() {
    ask("parent");
    const pid_t child = fork();
    if (child == 0) {
        ask("child");
        execl("/proc/self/exe", "card_user", "ask", nullptr);
        _exit(1);
    }
    waitpid(child, nullptr, 0);
    std::printf("parent still reads 0x%X\n", static_cast<unsigned>(inw(kStatus)));
}

[[noreturn]] void sleepOn() {
    signal(SIGTERM, [](int) {});
    ask("stubborn");
    while (true) {
        usleep(10'000);
    }
}

}  // namespace

int main(int, char** argv) {
    const char* const way = argv[1];
    if (std::strcmp(way, "ask") == 0) {
        ask("ask");
    } else if (std::strcmp(way, "share") == 0) {
        share();
    } else if (std::strcmp(way, "crash") == 0) {
        ask("crash");
        inw(kStatus);
        std::abort();
    } else if (std::strcmp(way, "stubborn") == 0) {
        sleepOn();
    }
}
