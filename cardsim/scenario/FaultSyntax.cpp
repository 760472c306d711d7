#include "scenario/FaultSyntax.h"

#include <algorithm>
#include <charconv>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "model/PortMap.h"

namespace cardsim {

namespace {

struct Field {
    const char* name;
    FaultField field;
};

constexpr Field kFields[] = {
    {"any", FaultField::kAnyField},     {"level", FaultField::kLevel},
    {"off-hook", FaultField::kOffHook}, {"triggered", FaultField::kTriggered},
    {"ringing", FaultField::kRinging},  {"digits", FaultField::kDigits},
    {"caller", FaultField::kCaller},    {"debug", FaultField::kDebug},
    {"counter", FaultField::kCounter},  {"audio", FaultField::kAudio},
};

template <class Entry, std::size_t size>
std::string namesOf(const Entry (&entries)[size]) {
    std::string names;
    for (const Entry& entry : entries) {
        names += names.empty() ? "" : ", ";
        names += entry.name;
    }
    return names;
}

template <class Entry, std::size_t size>
const Entry& find(const Entry (&entries)[size], std::string_view name, const char* what) {
    const auto* const found =
        std::find_if(std::begin(entries), std::end(entries),
                     [name](const Entry& entry) { return entry.name == name; });
    if (found == std::end(entries)) {
        throw std::invalid_argument("there is no " + std::string(what) + " \"" + std::string(name) +
                                    "\", only " + namesOf(entries));
    }
    return *found;
}

template <class Number>
bool readNumber(std::string_view text, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool readProbability(std::string_view percent, Fault& fault) {
    double value = 0;
    const bool isGood = readNumber(percent, value) && value > 0 && value <= 100;
    fault.probability = value / 100;
    return isGood;
}

bool readRange(std::string_view range, Fault& fault) {
    const std::size_t dash = range.find('-');
    if (!readNumber(range.substr(0, dash), fault.first)) {
        return false;
    }
    if (dash == std::string_view::npos) {
        fault.last = fault.first;
        return fault.first > 0;
    }
    return readNumber(range.substr(dash + 1), fault.last) && fault.first > 0 &&
           fault.last >= fault.first;
}

void readWhen(std::string_view when, Fault& fault) {
    bool isGood = false;
    if (!when.empty() && when.back() == '%') {
        isGood = readProbability(when.substr(0, when.size() - 1), fault);
    } else if (!when.empty() && when.back() == '+') {
        isGood = readNumber(when.substr(0, when.size() - 1), fault.first) && fault.first > 0;
    } else {
        isGood = readRange(when, fault);
    }
    if (!isGood) {
        throw std::invalid_argument(
            "after @ must stand N (once, at the Nth opportunity from 1), N+ "
            "(from it on), N-M (from the Nth to the Mth) or P% (at random)");
    }
}

void readCard(std::string_view card, Fault& fault) {
    if (!readNumber(card, fault.card) || fault.card < 0 || fault.card >= portMap::kMaxCards) {
        throw std::invalid_argument("after / must stand the card, 0 or 1");
    }
}

// Cuts the text at the last mark, off with what stands behind it; false when there is none.
bool cutAt(char mark, std::string_view& text, std::string_view& behind) {
    const std::size_t place = text.rfind(mark);
    if (place == std::string_view::npos) {
        return false;
    }
    behind = text.substr(place + 1);
    text = text.substr(0, place);
    return true;
}

Fault read(std::string_view text) {
    Fault fault;
    std::string_view part;
    if (cutAt('/', text, part)) {
        readCard(part, fault);
    }
    if (cutAt('@', text, part)) {
        readWhen(part, fault);
    }
    const bool hasField = cutAt(':', text, part);
    fault.kind = find(kFaultDescriptions, text, "kind of fault").kind;
    if (hasField && fault.kind != FaultKind::kNonsense) {
        throw std::invalid_argument("only nonsense goes to a field");
    }
    if (hasField) {
        fault.field = find(kFields, part, "field").field;
    }
    return fault;
}

}  // namespace

Fault parseFault(const std::string& text) {
    try {
        return read(text);
    } catch (const std::invalid_argument& error) {
        throw std::invalid_argument("fault \"" + text + "\": " + error.what());
    }
}

std::string faultHelp() {
    std::ostringstream help;
    help << "KIND[:FIELD][@WHEN][/CARD]\n"
            "KIND, its opportunities, and what the host meets when it strikes:\n";
    for (const FaultDescription& fault : kFaultDescriptions) {
        help << "  " << std::left << std::setw(17) << fault.name << fault.opportunity << ":\n"
             << std::setw(19) << "" << fault.effect << '\n';
    }
    help << "FIELD, for nonsense, is one of\n  " << namesOf(kFields)
         << "\n"
            "WHEN: N once, at the Nth opportunity; N+ from it on; N-M from the Nth to the Mth;\n"
            "      P% at random, at each opportunity; without it always\n"
            "CARD: 0 or 1; without it every card\n";
    return help.str();
}

}  // namespace cardsim
