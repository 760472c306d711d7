// The library calls by which a program starts others, taken in front of the C library's own: what
// it starts stays under the traps, whatever environment it hands down, and a program that they
// cannot be put under is refused with a line.
#include <alloca.h>
#include <fcntl.h>
#include <limits.h>
#include <spawn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "traps/Executable.h"
#include "traps/Programs.h"
#include "traps/Real.h"
#include "traps/Refusal.h"

namespace cardsim {

namespace {

constexpr int kMostKept = 4;

// "NAME=VALUE" as it was when this process started; never freed, since a process may start another
// until its last moment.
char* kept[kMostKept];
int numKept = 0;

std::size_t nameLength(const char* variable) {
    return static_cast<std::size_t>(std::strchr(variable, '=') - variable) + 1;
}

// Whether the variable is that one. A preload that no longer holds these traps, perhaps behind the
// program's own libraries, counts as none; a launcher under the launcher hands down another page.
bool servesAs(const char* variable, const char* keptOne) {
    const std::size_t name = nameLength(keptOne);
    const bool isPreload = std::strncmp(keptOne, "LD_PRELOAD=", name) == 0;
    return std::strncmp(variable, keptOne, name) == 0 &&
           (!isPreload || std::strstr(variable + name, keptOne + name) != nullptr);
}

bool holds(char* const* environment, const char* keptOne) {
    while (*environment != nullptr && !servesAs(*environment, keptOne)) {
        ++environment;
    }
    return *environment != nullptr;
}

bool holdsAllKept(char* const* environment) {
    return environment != nullptr && std::all_of(kept, kept + numKept, [=](const char* keptOne) {
               return holds(environment, keptOne);
           });
}

std::size_t countOf(char* const* list) {
    std::size_t count = 0;
    while (list != nullptr && list[count] != nullptr) {
        ++count;
    }
    return count;
}

// What the child gets: the program's variables, behind those that are missing. space: for so many
// and the kept ones. Allocates nothing, for the caller may be between vfork and exec.
char* const* withKept(char* const* environment, char** space) {
    if (holdsAllKept(environment)) {
        return environment;
    }
    char** next = space;
    for (int i = 0; i < numKept; ++i) {
        if (environment == nullptr || !holds(environment, kept[i])) {
            *next++ = kept[i];
        }
    }
    char** const own = next;
    for (; environment != nullptr && *environment != nullptr; ++environment) {
        const bool isReplaced = std::any_of(space, own, [=](const char* keptOne) {
            return std::strncmp(*environment, keptOne, nameLength(keptOne)) == 0;
        });
        if (!isReplaced) {
            *next++ = *environment;
        }
    }
    *next = nullptr;
    return space;
}

// The same of the process's own variables, for calls that start a shell by themselves.
void restoreVariables() {
    for (int i = 0; i < numKept; ++i) {
        if (environ == nullptr || !holds(environ, kept[i])) {
            const std::string name(kept[i], nameLength(kept[i]) - 1);
            setenv(name.c_str(), kept[i] + name.size() + 1, 1);
        }
    }
}

bool refusesProgram(const char* path) {
    const char* const reason = numKept == 0 || path == nullptr ? nullptr : whyNotTrapped(path);
    if (reason == nullptr) {
        return false;
    }
    refuse("start", path, reason, EACCES);
    return true;
}

bool refusesProgramInPath(const char* name) {
    char path[PATH_MAX];
    return name != nullptr && findInPath(name, path, sizeof(path)) && refusesProgram(path);
}

}  // namespace

void keepForChildren(const char* variable) {
    const char* const value = std::getenv(variable);
    if (value != nullptr && numKept < kMostKept) {
        kept[numKept++] = strdup((std::string(variable) + "=" + value).c_str());
    }
}

}  // namespace cardsim

using namespace cardsim;

// The environment that a child gets in place of environment, on the caller's stack.
#define KEPT(environment) \
    withKept(environment, \
             static_cast<char**>(alloca((countOf(environment) + kMostKept + 1) * sizeof(char*))))

extern "C" {

int execve(const char* path, char* const argv[], char* const environment[]) noexcept {
    return refusesProgram(path) ? -1 : REAL(execve)(path, argv, KEPT(environment));
}

int execv(const char* path, char* const argv[]) noexcept {
    return execve(path, argv, environ);
}

int execvpe(const char* file, char* const argv[], char* const environment[]) noexcept {
    return refusesProgramInPath(file) ? -1 : REAL(execvpe)(file, argv, KEPT(environment));
}

int execvp(const char* file, char* const argv[]) noexcept {
    return execvpe(file, argv, environ);
}

int fexecve(int fd, char* const argv[], char* const environment[]) noexcept {
    char path[32];
    std::snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    return refusesProgram(path) ? -1 : REAL(fexecve)(fd, argv, KEPT(environment));
}

int execveat(int folder, const char* name, char* const argv[], char* const environment[],
             int flags) noexcept {
    char path[PATH_MAX];
    if (folder == AT_FDCWD || *name == '/') {
        std::snprintf(path, sizeof(path), "%s", name);
    } else {
        std::snprintf(path, sizeof(path), "/proc/self/fd/%d%s%s", folder, *name == '\0' ? "" : "/",
                      name);
    }
    return refusesProgram(path) ? -1 : REAL(execveat)(folder, name, argv, KEPT(environment), flags);
}

// With the arguments one by one, a null pointer behind the last one, and behind it perhaps the
// environment.
#define LIST(name, call, getEnvironment)                                              \
    int name(const char* program, const char* first, ...) noexcept {                  \
        va_list arguments;                                                            \
        va_start(arguments, first);                                                   \
        std::size_t count = 1;                                                        \
        while (va_arg(arguments, char*) != nullptr) {                                 \
            ++count;                                                                  \
        }                                                                             \
        va_end(arguments);                                                            \
        auto** const argv = static_cast<char**>(alloca((count + 2) * sizeof(char*))); \
        argv[0] = const_cast<char*>(first);                                           \
        va_start(arguments, first);                                                   \
        for (std::size_t i = 1; i <= count; ++i) {                                    \
            argv[i] = va_arg(arguments, char*);                                       \
        }                                                                             \
        char** const environment = getEnvironment;                                    \
        va_end(arguments);                                                            \
        return call(program, argv, environment);                                      \
    }

LIST(execl, execve, environ)
LIST(execlp, execvpe, environ)
LIST(execle, execve, va_arg(arguments, char**))
#undef LIST

int posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const argv[],
                char* const environment[]) {
    return refusesProgram(path)
               ? EACCES
               : REAL(posix_spawn)(child, path, actions, attributes, argv, KEPT(environment));
}

int posix_spawnp(pid_t* child, const char* file, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const argv[],
                 char* const environment[]) {
    return refusesProgramInPath(file)
               ? EACCES
               : REAL(posix_spawnp)(child, file, actions, attributes, argv, KEPT(environment));
}

int system(const char* command) {
    restoreVariables();
    return REAL(system)(command);
}

FILE* popen(const char* command, const char* mode) {
    restoreVariables();
    return REAL(popen)(command, mode);
}

}  // extern "C"
