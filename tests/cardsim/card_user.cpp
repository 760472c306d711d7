// A small program that asks for the cards, for the launcher's tests: card_user WAY
// It prints what port permission answers, and then with WAY
//   fork      lets a child ask
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

int main(int, char** argv) {
    const std::string way = argv[1];
    const auto ask = [](const std::string& who) {
        const bool granted = ioperm(0x300, 32, 1) == 0;
        std::cout << who << ": " << (granted ? "granted" : strerrorname_np(errno)) << std::endl;
    };
    signal(SIGTERM, way == "stubborn" ? [](int) {} : SIG_DFL);
    ask(way);
    if (way == "fork") {
        if (fork() == 0) {
            ask("child");
            return 0;
        }
        wait(nullptr);
        std::cout << "parent reads " << inw(0x302) << std::endl;
    } else if (way == "crash") {
        inw(0x302);
        std::abort();
    }
    while (way == "stubborn") {
        usleep(10'000);
    }
}
