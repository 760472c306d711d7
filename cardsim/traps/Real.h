// The C library's own functions, behind those that the traps put in front of them.
#pragma once

#include <dlfcn.h>

namespace cardsim {

template <class Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace cardsim

// The C library's own function of that name, looked up once.
#define REAL(name)                                                           \
    ([]() -> decltype(&::name) {                                             \
        static const auto function = cardsim::real<decltype(::name)>(#name); \
        return function;                                                     \
    }())
