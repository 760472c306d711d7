// A card that fails at any access of a boot, and of a detection.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "DSPDetect.h"
#include "DirectIO.h"
#include "ObservedPc.h"
#include "ReferenceHost.h"
#include "Trials.h"

namespace trials {

namespace {

constexpr std::uint64_t kLongestReturn_us = 201'000;
constexpr std::uint16_t kEntryPoint = 0x0080;

struct Way {
    BusFault fault;
    const char* name;
};

constexpr Way kWays[] = {
    {BusFault::kStuckBits, "stuck bits"},
    {BusFault::kWrongValue, "wrong value"},
    {BusFault::kGone, "card gone"},
    {BusFault::kJustInTime, "ready just in time"},
    {BusFault::kJustTooLate, "ready just too late"},
};
constexpr int kWaysWithoutWaits = 3;

// A working directory with firmware as short as it can be and still have every kind of word in it:
// what matters is where in the table the card fails, not how long a section is.
class ShortFirmware {
  public:
    ShortFirmware() {
        std::filesystem::current_path(mkdtemp(folder.data()));
        writeSection("FIRST.BIN", 0x1234, 6);
        writeSection("SECOND.BIN", 0xFEDC, 4);
        for (const char* name : {"LOAD_4CH.TXT", "LOAD_8CH.TXT"}) {
            std::ofstream(name) << "Firmware for trials\naddress size section comment\n"
                                   "h0080 h0006 FIRST.BIN first\nh0400 h0004 SECOND.BIN second\n";
        }
    }
    ~ShortFirmware() {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(folder);
    }
    ShortFirmware(const ShortFirmware&) = delete;
    ShortFirmware& operator=(const ShortFirmware&) = delete;

  private:
    static void writeSection(const std::string& name, unsigned first, unsigned words) {
        std::ofstream section(name, std::ios::binary);
        for (unsigned i = 0; i < words; ++i) {
            const unsigned word = first + i * 0x0101;
            section.put(static_cast<char>(word & 0xFF)).put(static_cast<char>(word >> 8 & 0xFF));
        }
    }

    std::string folder = (std::filesystem::temp_directory_path() / "firmwareXXXXXX").string();
};

struct Case {
    Way way;
    std::uint64_t access;
    bool forGood;

    std::string name() const {
        return "access " + std::to_string(access) + ", " + way.name +
               (forGood ? " for good" : " once");
    }
};

// Goes through all cases until the access that a whole run does not reach any more; tryCase says
// whether the fault struck and throws a Deviation.
template <class TryCase>
Outcome sweep(const std::string& what, std::uint64_t accesses, std::uint64_t every, int ways,
              TryCase tryCase) {
    Outcome outcome;
    for (std::uint64_t access = 0; access < accesses; access += every) {
        for (int way = 0; way < ways; ++way) {
            for (const bool forGood : {false, true}) {
                const Case trial = {kWays[way], access, forGood};
                try {
                    ++outcome.runs;
                    outcome.faults += tryCase(trial) ? 1 : 0;
                } catch (const Deviation& deviation) {
                    outcome.findings.push_back(what + ", " + trial.name() + ": " +
                                               deviation.what());
                }
            }
        }
    }
    return outcome;
}

std::uint64_t sleptIn(const std::vector<Access>& record) {
    std::uint64_t slept = 0;
    for (const Access& access : record) {
        slept += access.kind == Access::Kind::kSleep ? access.value : 0;
    }
    return slept;
}

std::uint64_t accessesIn(const std::vector<Access>& record) {
    std::uint64_t accesses = 0;
    for (const Access& access : record) {
        accesses += access.kind == Access::Kind::kSleep ? 0 : 1;
    }
    return accesses;
}

// One card of that kind, alone in the PC.
class BootTrial {
  public:
    BootTrial(int bootedSlot, int kindOfCard)
        : slot(bootedSlot),
          channels(kindOfCard),
          pc(cardsim::SimulatedPc::Options::with(slot == 0 ? channels : 0,
                                                 slot == 1 ? channels : 0)),
          firmware(readFirmware(channels)) {
        DirectIO::getInstance().allowPortAccess();
        char* const memory =
            reinterpret_cast<char*>(const_cast<std::uint16_t*>(pc.memory())) + slot * 0x2000;
        if (channels == 4) {
            board = std::make_unique<DSPBoardFourChannel>(slot, memory, 0);
        } else {
            board = std::make_unique<DSPBoardEightChannel>(slot, memory, 0);
        }
    }

    std::uint64_t accessesOfABoot() {
        pc.takeRecord();
        bootClean();
        return accessesIn(pc.takeRecord());
    }

    bool fails(const Case& trial) {
        pc.takeRecord();
        const std::uint64_t start = pc.now();
        pc.breakBus(trial.way.fault, trial.access, trial.forGood);
        const bool booted = board->bootload();
        const std::uint64_t struck = pc.struckAt();
        const std::uint64_t returned = pc.now();
        const std::vector<Access> record = pc.takeRecord();
        pc.mendBus();

        Replay bus(record, start);
        if (referenceBoot(bus, slot, channels, firmware) != booted) {
            throw Deviation(booted ? "says that it has booted" : "says that it has not booted");
        }
        bus.end();
        if (trial.way.fault == BusFault::kJustInTime && !booted) {
            throw Deviation("gives up although the card was in time");
        }
        if (struck != 0 && !booted && returned - struck - sleptIn(record) > kLongestReturn_us) {
            throw Deviation("returns " + std::to_string(returned - struck) + " us later");
        }
        bootClean();
        return struck != 0;
    }

  private:
    void bootClean() {
        const std::uint32_t boots = pc.report().cards[slot].boots;
        if (!board->bootload()) {
            throw Deviation("the next boot, without a fault, fails");
        }
        const auto& image = pc.card(slot).bootRom().image();
        bool same = pc.report().cards[slot].boots == boots + 1 &&
                    pc.card(slot).bootRom().entryPoint() == kEntryPoint &&
                    image.size() == firmware.size();
        for (std::size_t i = 0; same && i < image.size(); ++i) {
            same = image[i].address == firmware[i].address && image[i].page == 0 &&
                   image[i].words == firmware[i].words;
        }
        if (!same) {
            throw Deviation("the next boot, without a fault, brings another image into the DSP");
        }
    }

    const int slot;
    const int channels;
    ObservedPc pc;
    const Firmware firmware;
    std::unique_ptr<DSPBoard> board;
};

Outcome sweepBootsOf(int slot, int channels, std::uint64_t every) {
    const ShortFirmware firmware;
    BootTrial card(slot, channels);
    return sweep(
        "boot of a " + std::to_string(channels) + "-channel card in slot " + std::to_string(slot),
        card.accessesOfABoot(), every, std::size(kWays),
        [&card](const Case& trial) { return card.fails(trial); });
}

void detect(ObservedPc& pc) {
    pc.takeRecord();
    DSPDetect detector;
    int channels[2] = {-1, -1};
    const int boards = detector.detectBoards(channels[0], channels[1], nullptr);
    const std::vector<Access> record = pc.takeRecord();
    Replay bus(record, 0);
    const Detected due = referenceDetection(bus);
    bus.end();
    if (boards != due.boards || channels[0] != due.channels[0] || channels[1] != due.channels[1]) {
        throw Deviation("finds other cards than answered");
    }
    if (pc.struckAt() == 0 && (boards != 2 || channels[0] != 4 || channels[1] != 8)) {
        throw Deviation("without a fault, finds other cards than there are");
    }
}

Outcome sweepDetection(std::uint64_t every) {
    ObservedPc pc(cardsim::SimulatedPc::Options::with(4, 8));
    DirectIO::getInstance().allowPortAccess();  // so that its sleeps are seen
    DSPDetect detector;
    int unused = 0;
    detector.detectBoards(unused, unused, nullptr);
    return sweep("detection", accessesIn(pc.takeRecord()), every, kWaysWithoutWaits,
                 [&pc](const Case& trial) {
                     pc.breakBus(trial.way.fault, trial.access, trial.forGood);
                     detect(pc);
                     const bool struck = pc.struckAt() != 0;
                     pc.mendBus();
                     detect(pc);
                     return struck;
                 });
}

}  // namespace

Outcome sweepBoots(std::uint64_t every) {
    struct Card {
        int slot, channels;
    };
    static constexpr Card kCards[] = {{0, 4}, {1, 4}, {0, 8}, {1, 8}};
    constexpr std::uint64_t kDetection = std::size(kCards);
    constexpr unsigned kLimit_s = 1800;
    Outcome all;
    runAllApart(
        kDetection + 1, [](std::uint64_t) { return "sweep"; },
        [every](std::uint64_t number) {
            return number == kDetection
                       ? sweepDetection(every)
                       : sweepBootsOf(kCards[number].slot, kCards[number].channels, every);
        },
        [&all](std::uint64_t number, const Outcome& outcome) {
            all.add(outcome);
            showProgress("boots", number + 1, kDetection + 1);
        },
        kLimit_s);
    return all;
}

}  // namespace trials
