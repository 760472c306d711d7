// What a trial found, and the way to run one apart from the others: in a process of its own, since
// the driver's single instances live as long as the process, and since a driver that crashes or
// hangs is a finding, not the end of the trial.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace trials {

struct Outcome {
    std::uint64_t runs = 0;
    std::uint64_t faults = 0;  // that struck
    std::vector<std::string> findings;
    std::vector<std::string> notes;  // to be shown, whatever was found

    void add(const Outcome& other);
};

// Runs it in a child process that keeps the driver's console lines to itself. A child that dies or
// takes longer than the limit is a finding, which begins with the name.
Outcome runApart(const std::string& name, const std::function<Outcome()>& trial, unsigned limit_s);

// The same for many, on all processors; each outcome is given to the listener in the order of the
// numbers, 0 to count - 1, on the caller's thread.
void runAllApart(std::uint64_t count, const std::function<std::string(std::uint64_t)>& name,
                 const std::function<Outcome(std::uint64_t)>& trial,
                 const std::function<void(std::uint64_t, const Outcome&)>& listener,
                 unsigned limit_s);

}  // namespace trials
