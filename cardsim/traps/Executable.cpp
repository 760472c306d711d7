#include "traps/Executable.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "traps/Real.h"

namespace cardsim {

namespace {

constexpr int kMostInterpreters = 4;

// Programs of this library's own kind.
using Header = ElfW(Ehdr);
using Segment = ElfW(Phdr);
#ifdef __x86_64__
constexpr int kClass = ELFCLASS64, kMachine = EM_X86_64;
constexpr const char* kOfAnotherKind = "it is no 64-bit program";
#else
constexpr int kClass = ELFCLASS32, kMachine = EM_386;
constexpr const char* kOfAnotherKind = "it is no 32-bit program";
#endif

bool isElf(const Header& header) {
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0;
}

// The linker itself needs none, and heeds the same variables.
bool isLinker(const char* path) {
    const char* const slash = std::strrchr(path, '/');
    return std::strncmp(slash == nullptr ? path : slash + 1, "ld-linux", 8) == 0;
}

bool hasInterpreter(int file, const Header& header) {
    for (int i = 0; i < header.e_phnum; ++i) {
        Segment segment{};
        const auto place = static_cast<off_t>(header.e_phoff) + i * off_t{header.e_phentsize};
        if (pread(file, &segment, sizeof(segment), place) != sizeof(segment)) {
            return true;  // not for us to judge
        }
        if (segment.p_type == PT_INTERP) {
            return true;
        }
    }
    return false;
}

// Whether the kernel gives it the right to ports for its file's sake. Then the dynamic linker takes
// no library from whoever starts it.
bool hasRightsOfItsOwn(const char* path) {
    struct stat status {};
    if (getuid() == 0 || prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1 || stat(path, &status) != 0) {
        return false;
    }
    vfs_ns_cap_data rights{};
    const ssize_t length = getxattr(path, "security.capability", &rights, sizeof(rights));
    const bool hasRawAccess = length >= static_cast<ssize_t>(XATTR_CAPS_SZ_1) &&
                              (rights.data[0].permitted >> CAP_SYS_RAWIO & 1) != 0;
    return hasRawAccess || ((status.st_mode & S_ISUID) != 0 && status.st_uid == 0);
}

const char* whyNotTrapped(const char* path, int file, const Header& header) {
    if (header.e_ident[EI_CLASS] != kClass || header.e_machine != kMachine) {
        return kOfAnotherKind;
    }
    if (!isLinker(path) && !hasInterpreter(file, header)) {
        return "it is linked statically";
    }
    return nullptr;
}

// The first word behind "#!" in the line, put where the line began; false when it is no such line.
bool findInterpreter(char* line) {
    line[std::strcspn(line, "\n")] = '\0';
    if (std::strncmp(line, "#!", 2) != 0) {
        return false;
    }
    const char* const word = line + 2 + std::strspn(line + 2, " \t");
    const std::size_t length = std::strcspn(word, " \t");
    std::memmove(line, word, length);
    line[length] = '\0';
    return length > 0;
}

}  // namespace

const char* whyNotTrapped(const char* path) {
    char line[256];
    for (int depth = 0; depth < kMostInterpreters; ++depth) {
        const int file = REAL(open)(path, O_RDONLY | O_CLOEXEC);
        const ssize_t length = file == -1 ? 0 : pread(file, line, sizeof(line) - 1, 0);
        const char* reason = nullptr;
        Header header{};
        bool isScript = false;
        if (length >= static_cast<ssize_t>(sizeof(header))) {
            std::memcpy(&header, line, sizeof(header));
        }
        if ((isElf(header) || file == -1) && hasRightsOfItsOwn(path)) {
            reason =
                "its file gives it rights of its own, and so nothing can be put in front of it: "
                "start it as root";
        } else if (isElf(header)) {
            reason = whyNotTrapped(path, file, header);
        } else if (length > 0) {
            line[length] = '\0';
            isScript = findInterpreter(line);
            path = line;
        }
        if (file != -1) {
            REAL(close)(file);
        }
        if (!isScript) {
            return reason;
        }
    }
    return nullptr;
}

bool findInPath(const char* name, char* path, std::size_t size) {
    if (std::strchr(name, '/') != nullptr) {
        return std::snprintf(path, size, "%s", name) < static_cast<int>(size);
    }
    const char* folder = std::getenv("PATH");
    folder = folder == nullptr ? "/bin:/usr/bin" : folder;
    while (true) {
        const std::size_t length = std::strcspn(folder, ":");
        std::snprintf(path, size, "%.*s%s%s", static_cast<int>(length), folder,
                      length == 0 ? "" : "/", name);
        if (access(path, X_OK) == 0) {
            return true;
        }
        if (folder[length] == '\0') {
            return false;
        }
        folder += length + 1;
    }
}

}  // namespace cardsim
