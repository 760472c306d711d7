#include "show/Advice.h"

#include <algorithm>
#include <functional>
#include <iterator>

namespace cardtrace {

namespace {

struct Rule {
    const char* message;
    const char* cure;
    std::function<std::uint64_t(const CardFacts&)> count;
    const char* shown;  // behind the count
};

const Rule kRules[] = {
    {"read 255 not 0x55",
     "set the card to its address and seat it anew; nothing is wrong when there "
     "is no such card",
     [](const CardFacts& card) { return card.nobodyAnswers ? card.wrongEchoes : 0; },
     "echoes of all ones: nobody is at that address"},
    {"read N not 0x55", "another device has these ports, see /proc/ioports, or the card is broken",
     [](const CardFacts& card) { return card.nobodyAnswers ? 0 : card.wrongEchoes; },
     "wrong echoes"},
    {"Boot Mode", "switch the PC off and on; exchange the card",
     [](const CardFacts& card) { return card.timeOutInHeader ? card.timeOuts : 0; },
     "time-outs, in the header of the boot table"},
    {"Boot Section failed addr=N",
     "compare the checksums with those of a boot that worked; else the "
     "card",
     [](const CardFacts& card) { return card.timeOutInHeader ? 0 : card.timeOuts; },
     "time-outs inside the boot table"},
    {"Missed Xfer ", "find what stalls the PC; let the driver have real-time priority",
     [](const CardFacts& card) { return card.missed - card.missedAfterBoot; },
     "transfers that went by unread"},
    {"DSP Board Locked Up",
     "the driver boots all cards at the seventh; if it comes back: the card, "
     "its seat, its power",
     [](const CardFacts& card) { return card.repeated; },
     "transfers with the counter of the one before"},
    {"PROBLEM! Unlocking a buffer which is not locked",
     "the PC was too slow, as for missed transfers",
     [](const CardFacts& card) { return card.notHandedOver; },
     "buffers given back that the DSP had taken back"},
    {"no lines and no audio from a card", "start the program again; if it comes back, the card",
     [](const CardFacts& card) { return card.looksInVain; },
     "looks, one behind the other, at a card whose firmware runs and hands over nothing"},
};

struct CallRule {
    const char* call;  // how its failure begins
    const char* message;
    const char* cure;
    const char* end = "";  // how it ends
};

// The first one that fits.
const CallRule kCallRules[] = {
    {"permission for ports", "failed to allow port access, errno=38",
     "use the PC itself, with a kernel that has port permission", ": errno 38"},
    {"permission for ports", "failed to allow port access, errno=1", "run as root; mind lockdown"},
    {"/dev/mem opened", "Couldn't access /dev/mem", "run as root; a kernel with CONFIG_DEVMEM"},
    {"/dev/port opened", "Couldn't access /dev/port errno=N",
     "run as root; a kernel with CONFIG_DEVPORT"},
    {"memory mapped", "mmap failed errno=N", "iomem=relaxed on the kernel's command line"},
    {"memory locked", "Cards in use by process N (NAME)", "end the other program first"},
    {"/dev/port:", "read failed errno=N", "the last lines of dmesg may name who refuses it"},
};

bool isMeant(const CallRule& rule, const std::string& failure) {
    const std::string end = rule.end;
    return failure.rfind(rule.call, 0) == 0 && failure.size() >= end.size() &&
           failure.compare(failure.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

std::vector<Advice> adviceFor(const Facts& facts) {
    std::vector<Advice> found;
    for (const auto& [failure, times] : facts.failures) {
        const auto* const rule =
            std::find_if(std::begin(kCallRules), std::end(kCallRules),
                         [what = failure](const CallRule& each) { return isMeant(each, what); });
        if (rule != std::end(kCallRules)) {
            found.push_back(
                {-1, rule->message, failure + ", " + std::to_string(times) + " times", rule->cure});
        }
    }
    for (int card = 0; card < 2; ++card) {
        for (const Rule& rule : kRules) {
            const std::uint64_t count = rule.count(facts.cards[card]);
            if (count != 0) {
                found.push_back(
                    {card, rule.message, std::to_string(count) + ' ' + rule.shown, rule.cure});
            }
        }
    }
    return found;
}

}  // namespace cardtrace
