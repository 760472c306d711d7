// The single instances of the driver: each is made by whichever thread asks first, while others
// that ask at the same time wait, and is never destroyed, since threads use it until the process
// ends.
#pragma once

#include <mutex>

// The instance; make() makes it, in the first of all calls from one place.
template <class Class, class Make>
Class& madeOnce(Class*& instance, Make make) {
    static std::once_flag made;
    std::call_once(made, [&] { instance = make(); });
    return *instance;
}
