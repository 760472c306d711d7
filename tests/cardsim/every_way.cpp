// Tries every way to the cards' two devices that a program has, and tells of each that ends
// otherwise than it should. The data port of card 0, held in reset, gives back what was written to
// it: a way that is served reads 0x5A there. Exit status: how many ends are wrong.
//   every_way FOLDER STATIC_PROGRAM      FOLDER: for links; "child" instead: reads as a child
#include <aio.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <spawn.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>

namespace {

constexpr int kPort = 0x300;
constexpr int kServed = 0x5A;
constexpr int kFails = -1000;  // with any errno
// The parent has the cards, so a child reads what nobody drives.
constexpr int kServedToChild = 0xFF;

int fails(bool failed) {
    return failed ? -errno : 0;
}

// The byte at the port by a descriptor; which is closed.
int byteBy(int fd) {
    unsigned char byte = 0;
    if (fd == -1 || lseek(fd, kPort, SEEK_SET) == -1 || read(fd, &byte, 1) != 1) {
        return -errno;
    }
    close(fd);
    return byte;
}

int opened(const char* path = "/dev/port", int flags = O_RDWR) {
    return open(path, flags);
}

template <class Read>
int byteOf(Read readInto) {
    unsigned char byte = 0;
    return readInto(opened(), byte) == 1 ? byte : -errno;
}

int statusOf(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status);
}

int mapped(int flags, int protection, std::size_t length, off_t offset, int sharing = MAP_SHARED) {
    return fails(mmap(nullptr, length, protection, sharing, opened("/dev/mem", flags), offset) ==
                 MAP_FAILED);
}

// A system call that no library sees.
long raw(long number, long a, long b, long c, long d) {
    long result = number;
#ifdef __x86_64__
    register long fourth asm("r10") = d;
    asm volatile("syscall"
                 : "+a"(result)
                 : "D"(a), "S"(b), "d"(c), "r"(fourth)
                 : "rcx", "r11", "memory");
#else
    asm volatile("int $0x80" : "+a"(result) : "b"(a), "c"(b), "d"(c), "S"(d) : "memory");
#endif
    return result;
}

bool mayReachMachine() {
    std::ifstream status("/proc/self/status");
    constexpr unsigned long long kRawAccess = 1ull << 17;
    for (std::string word; status >> word;) {
        if (word == "CapEff:" || word == "CapPrm:" || word == "CapBnd:") {
            std::string set;
            status >> set;
            if ((std::stoull(set, nullptr, 16) & kRawAccess) != 0) {
                return true;
            }
        }
    }
    return false;
}

struct Way {
    const char* name;
    int due;
    std::function<int()> go;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2) {
        return byteBy(opened());
    }
    const std::string folder = argv[1], self = "/proc/self/exe";
    char name[] = "every_way", word[] = "child", *nothing[] = {nullptr};
    char* child[] = {name, word, nullptr};
    char* still[] = {name, nullptr};
    const auto inFolder = [&](const char* file) { return folder + "/" + file; };
    symlink("/dev/port", inFolder("link").c_str());
    symlink("link", inFolder("link2").c_str());
    symlink("/dev", inFolder("dev").c_str());
    // Only root makes nodes; for others a link stands in.
    for (const auto& [file, minor] : {std::pair("node", 4), {"node-mem", 1}}) {
        if (mknod(inFolder(file).c_str(), S_IFCHR | 0600, makedev(1, unsigned(minor))) != 0) {
            symlink(minor == 4 ? "/dev/port" : "/dev/mem", inFolder(file).c_str());
        }
    }
    if (pwrite(opened(), "\x5A", 1, kPort) != 1) {
        return 100;
    }
    const int devices = open("/dev", O_PATH),
              plain = open(inFolder("plain").c_str(), O_CREAT | O_RDWR, 0600);
    unsigned char one[2] = {};
    const iovec parts[] = {{one, 1}, {one + 1, 1}};
    const auto descriptorPath = [](int fd) { return "/proc/self/fd/" + std::to_string(fd); };

    const Way kWays[] = {
        {"openat", kServed, [&] { return byteBy(openat(devices, "port", O_RDWR)); }},
        {"relative", kServed, [&] { return chdir("/dev"), byteBy(opened("../dev/./port")); }},
        {"link", kServed, [&] { return byteBy(opened(inFolder("link2").c_str())); }},
        {"folder link", kServed, [&] { return byteBy(opened(inFolder("dev/port").c_str())); }},
        {"node", kServed, [&] { return byteBy(opened(inFolder("node").c_str())); }},
        {"descriptor", kServed, [&] { return byteBy(opened(descriptorPath(opened()).c_str())); }},
        {"path only", kServed,
         [&] { return byteBy(opened(descriptorPath(opened("/dev/port", O_PATH)).c_str())); }},
        {"path only, read", -EBADF, [&] { return byteBy(opened("/dev/port", O_PATH)); }},
        {"by number", kServed,
         [&] { return byteBy(int(syscall(SYS_openat, AT_FDCWD, "/dev/port", O_RDWR))); }},
        {"read by number", kServed,
         [&] {
             return byteOf(
                 [](int fd, auto& byte) { return syscall(SYS_pread64, fd, &byte, 1, kPort, 0); });
         }},
        {"write only", -EBADF, [&] { return byteBy(opened("/dev/port", O_WRONLY)); }},
        {"creat", 1, [&] { return int(pwrite(creat("/dev/port", 0600), "\x5A", 1, kPort)); }},
        {"exclusive", -EEXIST, [&] { return fails(opened("/dev/mem", O_CREAT | O_EXCL) == -1); }},
        {"dup", kServed, [&] { return byteBy(dup(opened())); }},
        {"dup2", kServed, [&] { return byteBy(dup2(opened(), 77)); }},
        {"dup3", kServed, [&] { return byteBy(dup3(opened(), 78, O_CLOEXEC)); }},
        {"F_DUPFD", kServed, [&] { return byteBy(fcntl(opened(), F_DUPFD_CLOEXEC, 79)); }},
        {"too high", -EMFILE, [&] { return fails(fcntl(opened(), F_DUPFD, 5000) == -1); }},
        {"readv", kServed,
         [&] {
             const int fd = opened();
             lseek(fd, kPort - 1, SEEK_SET);
             return readv(fd, parts, 2) == 2 ? int(one[1]) : -errno;
         }},
        {"preadv2", kServed,
         [&] { return preadv2(opened(), parts, 2, kPort - 1, 0) == 2 ? int(one[1]) : -errno; }},
        {"readv by number", kServed,
         [&] {
             const int fd = opened();
             lseek(fd, kPort - 1, SEEK_SET);
             return syscall(SYS_readv, fd, parts, 2) == 2 ? int(one[1]) : -errno;
         }},
        {"preadv by number", kServed,
         [&] {
             return syscall(SYS_preadv, opened(), parts, 2, kPort - 1, 0) == 2 ? int(one[1])
                                                                               : -errno;
         }},
        {"dup2 by number", kServed, [&] { return byteBy(int(syscall(SYS_dup2, opened(), 80))); }},
        {"F_DUPFD by number", kServed,
         [&] { return byteBy(int(syscall(SYS_fcntl, opened(), F_DUPFD, 81))); }},
        {"sendfile by number", -EINVAL,
         [&] { return fails(syscall(SYS_sendfile, plain, opened(), nullptr, 1) == -1); }},
        {"pwritev", 1, [&] { return one[0] = kServed, int(pwritev(opened(), parts, 1, kPort)); }},
        {"last port", 1, [&] { return int(pread(opened(), one, 2, 0xFFFF)); }},
        {"beyond it", 0, [&] { return int(pread(opened(), one, 2, 0x10000)); }},
        {"from the end", -EINVAL, [&] { return fails(lseek(opened(), 0, SEEK_END) == -1); }},
        {"number used again", 0,
         [&] {
             const int fd = opened();
             raw(SYS_close, fd, 0, 0, 0);
             dup2(plain, fd);
             return int(read(fd, one, 1));
         }},
        {"fopen", -ENODEV, [&] { return fails(fopen("/dev/port", "r") == nullptr); }},
        {"freopen", -ENODEV,
         [&] { return fails(freopen(inFolder("link").c_str(), "r", stdin) == nullptr); }},
        {"fdopen", -EINVAL, [&] { return fails(fdopen(opened(), "r") == nullptr); }},
        {"sendfile", -EINVAL, [&] { return fails(sendfile(plain, opened(), nullptr, 1) == -1); }},
        {"copy_file_range", -EINVAL,
         [&] { return fails(copy_file_range(opened(), nullptr, plain, nullptr, 1, 0) == -1); }},
        {"splice", -EINVAL,
         [&] { return fails(splice(opened(), nullptr, plain, nullptr, 1, 0) == -1); }},
        {"aio_read", -EINVAL,
         [&] {
             aiocb block{};
             block.aio_fildes = opened();
             return fails(aio_read(&block) == -1);
         }},
        {"openat2", -ENODEV,
         [&] {
             open_how how{O_RDWR, 0, 0};
             return fails(syscall(SYS_openat2, AT_FDCWD, "/dev/mem", &how, sizeof(how)) == -1);
         }},
        {"mapped ports", -ENODEV,
         [&] { return fails(mmap(nullptr, 1, PROT_READ, MAP_SHARED, opened(), 0) == MAP_FAILED); }},
        {"iopl", -EPERM, [&] { return fails(iopl(3) != 0); }},
        {"ioperm for others", -EINVAL, [&] { return fails(ioperm(0, 0x400, 1) != 0); }},
        {"memory", 0, [&] { return mapped(O_RDWR, PROT_READ | PROT_WRITE, 0x4000, 0xD0000); }},
        {"memory before", -EPERM, [&] { return mapped(O_RDWR, PROT_READ, 0x5000, 0xCF000); }},
        {"memory behind", -EPERM, [&] { return mapped(O_RDWR, PROT_READ, 0x2000, 0xD3000); }},
        {"read-only memory", -EACCES,
         [&] { return mapped(O_RDONLY, PROT_READ | PROT_WRITE, 0x1000, 0xD0000); }},
        {"private memory", 0,
         [&] { return mapped(O_RDONLY, PROT_READ | PROT_WRITE, 0x1000, 0xD0000, MAP_PRIVATE); }},
        {"write-only memory", -EACCES,
         [&] { return mapped(O_WRONLY, PROT_READ, 0x1000, 0xD0000); }},
        {"memory cut and grown", kFails,
         [&] {
             const int fd = opened(inFolder("node-mem").c_str(), O_RDWR | O_TRUNC);
             return ftruncate(fd, 0) == 0 || pwrite(fd, "x", 1, 0xD4000) == 1
                        ? 0
                        : -int(pread(fd, one, 1, 0xD3FFF) == 1);
         }},
        {"execve without environment", kServedToChild,
         [&] {
             const pid_t process = vfork();
             return process == 0 ? execve(self.c_str(), child, nothing) : statusOf(process);
         }},
        {"execlp", kServedToChild,
         [&] {
             const pid_t process = fork();
             return process == 0 ? (clearenv(), execlp(self.c_str(), name, word, nullptr))
                                 : statusOf(process);
         }},
        {"posix_spawn", kServedToChild,
         [&] {
             pid_t process = 0;
             return posix_spawn(&process, self.c_str(), nullptr, nullptr, child, nothing) == 0
                        ? statusOf(process)
                        : 0;
         }},
        {"inherited", kServedToChild,
         [&] {
             const pid_t process = fork();
             const std::string command = "exec dd bs=1 count=1 <&" + std::to_string(opened()) +
                                         " | grep -q $'\\xFF' && exit 255";
             return process == 0 ? execlp("bash", "bash", "-c", command.c_str(), nullptr)
                                 : statusOf(process);
         }},
        {"opened for a child", ENODEV,
         [&] {
             posix_spawn_file_actions_t actions;
             posix_spawn_file_actions_init(&actions);
             return posix_spawn_file_actions_addopen(&actions, 5, "/dev/port", O_RDWR, 0);
         }},
        {"static program", -EACCES, [&] { return execve(argv[2], still, nothing), -errno; }},
        {"a script of it", -EACCES,
         [&] {
             std::ofstream(inFolder("script")) << "#! " << argv[2] << " -x\n";
             chmod(inFolder("script").c_str(), 0700);
             return execvp(inFolder("script").c_str(), still), -errno;
         }},
        {"raw open", kFails,
         [&] { return int(raw(SYS_openat, AT_FDCWD, long(inFolder("node").c_str()), O_RDWR, 0)); }},
        {"raw ioperm", kFails, [&] { return int(raw(SYS_ioperm, kPort, 1, 1, 0)); }},
        {"the right to do so", 0, [&] { return mayReachMachine() ? 1 : 0; }},
    };
    int wrong = 0;
    for (const Way& way : kWays) {
        errno = 0;
        const int end = way.go();
        if (way.due == kFails ? end >= 0 : end != way.due) {
            std::printf("%s: %d, not %d\n", way.name, end, way.due);
            ++wrong;
        }
    }
    return wrong;
}
