// A small program that asks for the cards, for the launcher's tests: card_user WAY
// It prints what port permission answers, and then with WAY
//   ask       ends
//   share     lets a child and another program ask
//   crash     uses a port and aborts
//   stubborn  sleeps on whatever it is told
#include <signal.h>
#include <sys/io.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace {

constexpr unsigned short kStatus = 0x302;

void ask(const std::string& who) {
    const bool granted = ioperm(0x300, 32, 1) == 0;
    std::cout << who << ": " << (granted ? "granted" : strerrorname_np(errno)) << std::endl;
}

void share() {
    const pid_t child = fork();
    if (child == 0) {
        ask("child");
        execl("/proc/self/exe", "card_user", "ask", nullptr);
        _exit(1);
    }
    waitpid(child, nullptr, 0);
    std::cout << "still reads " << inw(kStatus) << std::endl;
}

}  // namespace

int main(int, char** argv) {
    const std::string way = argv[1];
    signal(SIGTERM, way == "stubborn" ? [](int) {} : SIG_DFL);
    ask(way);
    if (way == "share") {
        share();
    } else if (way == "crash") {
        inw(kStatus);
        std::abort();
    }
    while (way == "stubborn") {
        usleep(10'000);
    }
}
