#include "scenario/ScenarioFile.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

#include "model/TransferLayout.h"
#include "scenario/FaultSyntax.h"

namespace cardsim {

namespace {

using Action = ScenarioEvent::Action;

constexpr double kLongest_s = 1e9;
constexpr std::uint64_t kCallerAfter_us = 500'000;

[[noreturn]] void refuse(const std::string& origin, const std::string& reason) {
    throw std::invalid_argument(origin + ": " + reason);
}

std::string originOf(const std::string& path, const toml::source_region& source) {
    return path + ":" + std::to_string(source.begin.line);
}

// One [[event]] table: gives out its values by key and remembers which were asked for.
class Entry {
  public:
    Entry(const toml::table& entryTable, const std::string& filePath)
        : table(entryTable), path(filePath) {}

    bool has(const char* key) const { return table.contains(key); }
    std::string origin() const { return originOf(path, table.source()); }

    std::uint64_t microseconds(const char* key) {
        const auto seconds = value(key).value<double>();
        if (!seconds || !(*seconds >= 0 && *seconds <= kLongest_s)) {
            refuseValue(key, "must be a time in seconds, 0 or more");
        }
        return static_cast<std::uint64_t>(std::llround(*seconds * 1e6));
    }

    int number(const char* key, int highest) {
        const auto number = value(key).value_exact<std::int64_t>();
        if (!number || *number < 0 || *number > highest) {
            refuseValue(key, "must be a whole number from 0 to " + std::to_string(highest));
        }
        return static_cast<int>(*number);
    }

    std::string text(const char* key) {
        const auto text = value(key).value_exact<std::string>();
        if (!text) {
            refuseValue(key, "must be a text in quotes");
        }
        return *text;
    }

    std::string digits(const char* key) {
        std::string digits = text(key);
        if (digits.empty() || digits.find_first_not_of("0123456789*#ABCD") != std::string::npos) {
            refuseValue(key, "must be made of the digits 0 to 9, *, # and A to D");
        }
        return digits;
    }

    std::string caller(const char* key) {
        std::string caller = text(key);
        const bool isPlain =
            std::all_of(caller.begin(), caller.end(), [](char c) { return c >= ' ' && c <= '~'; });
        if (caller.empty() || caller.size() >= layout::kCallerBytes || !isPlain) {
            refuseValue(key, "must have 1 to " + std::to_string(layout::kCallerBytes - 1) +
                                 " plain characters");
        }
        return caller;
    }

    // Of a value that is there.
    std::string originOfValue(const char* key) const {
        return originOf(path, table.get(key)->source());
    }

    [[noreturn]] void refuseValue(const char* key, const std::string& reason) const {
        refuse(originOfValue(key), std::string(key) + " " + reason);
    }

    // To be called when everything has been asked for.
    void refuseOtherKeys() const {
        for (const auto& [key, node] : table) {
            if (asked.count(std::string(key.str())) == 0) {
                refuse(originOf(path, key.source()),
                       "\"" + std::string(key.str()) + "\" does not belong to this event");
            }
        }
    }

  private:
    const toml::node& value(const char* key) {
        asked.insert(key);
        const toml::node* const node = table.get(key);
        if (node == nullptr) {
            refuse(origin(), std::string(key) + " is missing");
        }
        return *node;
    }

    const toml::table& table;
    const std::string& path;
    std::set<std::string> asked;
};

struct Command {
    const char* name;
    Action action;
};

constexpr Command kCommands[] = {
    {"ring", Action::kRing},        {"ring-end", Action::kRingEnd}, {"caller", Action::kCaller},
    {"off-hook", Action::kOffHook}, {"on-hook", Action::kOnHook},   {"digits", Action::kDigits},
    {"speak", Action::kSpeak},      {"quiet", Action::kQuiet},      {"level", Action::kLevel},
};
constexpr char kCall[] = "call";

class Reader {
  public:
    explicit Reader(const std::string& filePath) : path(filePath) {}

    std::vector<ScenarioEvent> read() {
        const toml::table file = parse();
        for (const auto& [key, node] : file) {
            if (key.str() != "event" || !node.is_array_of_tables()) {
                refuse(
                    originOf(path, key.source()),
                    "only [[event]] tables may stand here, not \"" + std::string(key.str()) + "\"");
            }
            for (const toml::node& table : *node.as_array()) {
                readEvent(Entry(*table.as_table(), path));
            }
        }
        std::stable_sort(events.begin(), events.end(), [](const auto& one, const auto& other) {
            return one.time_us < other.time_us;
        });
        return std::move(events);
    }

  private:
    std::string contents() const {
        std::error_code ignored;
        if (std::filesystem::is_directory(path, ignored)) {
            refuse(path, std::strerror(EISDIR));
        }
        std::ifstream file(path);
        if (!file) {
            refuse(path, std::strerror(errno));
        }
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

    toml::table parse() const {
        try {
            return toml::parse(contents(), path);
        } catch (const toml::parse_error& error) {
            refuse(originOf(path, error.source()), std::string(error.description()));
        }
    }

    void readEvent(Entry entry) {
        ScenarioEvent event;
        event.origin = entry.origin();
        event.time_us = entry.microseconds("at");
        if (entry.has("fault")) {
            readFault(entry, event);
        } else {
            event.line = entry.number("line", 1000);
            readCommand(entry, event);
        }
        entry.refuseOtherKeys();
    }

    void readFault(Entry& entry, ScenarioEvent event) {
        event.action = Action::kFault;
        try {
            event.fault = parseFault(entry.text("fault"));
        } catch (const std::invalid_argument& error) {
            refuse(entry.originOfValue("fault"), error.what());
        }
        events.push_back(event);
    }

    void readCommand(Entry& entry, ScenarioEvent event) {
        const std::string name = entry.text("do");
        if (name == kCall) {
            readCall(entry, event);
            return;
        }
        const auto* const command =
            std::find_if(std::begin(kCommands), std::end(kCommands),
                         [&name](const Command& candidate) { return candidate.name == name; });
        if (command == std::end(kCommands)) {
            entry.refuseValue("do", "must be one of " + commandNames() + ", not \"" + name + "\"");
        }
        event.action = command->action;
        if (event.action == Action::kCaller) {
            event.text = entry.caller("caller");
        } else if (event.action == Action::kDigits) {
            event.text = entry.digits("digits");
        } else if (event.action == Action::kLevel) {
            event.level = static_cast<std::uint16_t>(entry.number("level", layout::kMaxLevel));
        }
        events.push_back(event);
    }

    // A whole call: it rings (or, without ringing, goes out), is talked, and ends.
    void readCall(Entry& entry, const ScenarioEvent& start) {
        const auto add = [this, &start](std::uint64_t time_us, Action action,
                                        const std::string& text = "") {
            ScenarioEvent event = start;
            event.time_us = time_us;
            event.action = action;
            event.text = text;
            events.push_back(event);
        };
        const std::uint64_t ring_us = entry.has("ring") ? entry.microseconds("ring") : 0;
        const std::uint64_t answered = start.time_us + ring_us;
        if (ring_us > 0) {
            add(start.time_us, Action::kRing);
        }
        if (entry.has("caller")) {
            const std::string caller = entry.caller("caller");
            if (ring_us == 0) {
                entry.refuseValue("caller", "shows while it rings: ring is missing");
            }
            add(start.time_us + std::min(kCallerAfter_us, ring_us), Action::kCaller, caller);
        }
        if (ring_us > 0) {
            add(answered, Action::kRingEnd);
        }
        add(answered, Action::kOffHook);
        if (entry.has("digits")) {
            add(answered, Action::kDigits, entry.digits("digits"));
        }
        add(answered, Action::kSpeak);
        const std::uint64_t ended = answered + entry.microseconds("talk");
        add(ended, Action::kQuiet);
        add(ended, Action::kOnHook);
    }

    static std::string commandNames() {
        std::string names;
        for (const Command& command : kCommands) {
            names += std::string(command.name) + ", ";
        }
        return names + kCall;
    }

    const std::string& path;
    std::vector<ScenarioEvent> events;
};

}  // namespace

std::vector<ScenarioEvent> readScenario(const std::string& path) {
    return Reader(path).read();
}

}  // namespace cardsim
