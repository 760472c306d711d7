// What a trace is of, as its file says it, which may be anything.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace cardtrace {

// An empty object when it makes no sense. What is nested deeper than anything that a recorder
// writes is left out: objects of this library are copied by recursion. Json: one of its kinds.
template <class Json>
Json readAbout(const std::string& text) {
    constexpr int kDeepest = 16;
    const Json read = Json::parse(
        text, [](int depth, auto, auto&) { return depth <= kDeepest; }, false);
    return read.is_object() ? read : Json::object();
}

}  // namespace cardtrace
