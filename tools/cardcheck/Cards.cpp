#include "Cards.h"

#include "CardMemory.h"
#include "CardPorts.h"
#include "DSPBootLoader.h"
#include "DSPDetect.h"
#include "MemIO.h"

namespace cardcheck {

namespace {

constexpr int kNobodyAnswers = 0xFF;  // what a bus without a card reads as

std::string card(int slot) {
    return "card " + std::to_string(slot);
}

constexpr char kSeatAnew[] = "seat the card anew; if that does not help, exchange it";

std::string answersAtTimes(int slot) {
    return "answers at " + hex(basePortOfBoard(slot), 3) + " at times only";
}

// For a card that detection has not found: tests it once more, to see why.
void explainAbsence(Report& report, DSPDetect& detector, int slot) {
    const std::string at = " at " + hex(basePortOfBoard(slot), 3);
    const DSPDetect::Echo echo = detector.testEcho(slot);
    const std::string seen = " (wrote " + hex(static_cast<unsigned>(echo.written), 2) + ", read " +
                             hex(static_cast<unsigned>(echo.read), 2) + ")";
    if (echo.isRight && slot != 0) {
        report.fail(card(slot), "answers" + at + ", but is used beside card 0 only",
                    "mend card 0, or set the I/O address of this card to " +
                        hex(kBasePortBoard0, 3) + " and its memory address to " +
                        hex(kCardMemBase, 5));
    } else if (echo.isRight) {
        report.fail(card(slot), answersAtTimes(slot), kSeatAnew);
    } else if (echo.read != kNobodyAnswers) {
        report.fail(card(slot), "wrong echo" + at + seen + ": another device, or a broken card",
                    "see in /proc/ioports whether another device has these ports; if none has, "
                    "seat the card anew or exchange it");
    } else if (slot == 0) {
        report.fail(card(slot), "nobody answers" + at + seen,
                    "seat the card, set its I/O address to " + hex(kBasePortBoard0, 3) +
                        " and keep these ports for it in the set-up of the PC");
    } else {
        report.skip(card(slot), "none: nobody answers" + at + seen);
    }
}

void checkCardMemory(Report& report, DSPDetect& detector, int slot, void* memory) {
    const std::string name = "memory of " + card(slot);
    const unsigned long offset = static_cast<unsigned long>(slot) * kBoardMemLength;
    const std::string at = " at " + hex(kCardMemBase + offset, 5);
    if (memory == nullptr) {
        report.skip(name, "needs the card memory");
    } else if (detector.simpleMemTest(memory, slot)) {
        report.pass(name, "keeps what is written" + at);
    } else {
        report.fail(name,
                    "does not keep what is written" + at + ", a word reads " +
                        hex(MemReadW(memory, offset + 4), 4),
                    "set the card's memory address to " + hex(kCardMemBase + offset, 5) +
                        ", and keep that memory free of other cards and of BIOS shadowing in the "
                        "set-up of the PC");
    }
}

// A DSP that is let out of reset asks for its firmware. It gets the first byte of any boot table,
// and is held in reset again.
void checkBoot(Report& report, DSPDetect& detector, int slot, int channels, bool portsGranted) {
    const std::string name = "boot of " + card(slot);
    if (!portsGranted) {
        report.skip(name, "no byte sent: needs port permission");
        return;
    }
    constexpr std::uint8_t kFirstByte = 0x08;
    const int base = basePortOfBoard(slot);
    DSPBootloader bootloader;
    bootloader.init(static_cast<unsigned>(base), static_cast<unsigned>(channels), slot);
    bootloader.resetDSP(true);
    bootloader.resetDSP(false);
    const bool taken = bootloader.bootByte(kFirstByte);
    const int status = detector.readPort(base + kStatusPort) & 0xFF;
    bootloader.resetDSP(true);
    if (taken) {
        report.pass(name, "the DSP asks for its firmware and takes the first byte");
        report.skip("firmware of " + card(slot),
                    "not started here: run dspcard-bench in this folder, and see that transfers "
                    "come, without errors");
    } else if (status == kNobodyAnswers) {
        report.fail(name, "out of reset the card reads all ones, as if it were not there",
                    kSeatAnew);
    } else {
        report.fail(name,
                    std::string("out of reset the DSP ") + ((status & kBootByteBusy) != 0
                                                                ? "does not take the first byte"
                                                                : "never asks for its firmware"),
                    kSeatAnew);
    }
}

}  // namespace

FoundCards checkCards(Report& report, const Access& access, bool mayReset) {
    FoundCards found;
    if (!mayReset) {
        report.skip("cards", "not touched: no go-ahead for resetting them (--reset-cards)");
        return found;
    }
    if (access.cardsInUse) {
        report.skip("cards", "not touched: another process has them");
        return found;
    }
    if (!access.portDevice) {
        report.skip("cards", "need /dev/port");
        return found;
    }
    DSPDetect detector;
    int channels[kMaxCards] = {};
    const int numFound = detector.detectBoards(channels[0], channels[1], access.memory);
    for (int slot = 0; slot < kMaxCards; ++slot) {
        if (slot >= numFound) {
            explainAbsence(report, detector, slot);
            continue;
        }
        if (channels[slot] != 4 && channels[slot] != 8) {
            report.fail(card(slot), answersAtTimes(slot), kSeatAnew);
            continue;
        }
        found.channels[slot] = channels[slot];
        report.pass(card(slot), counted(static_cast<unsigned>(channels[slot]), "channel") + " at " +
                                    hex(basePortOfBoard(slot), 3));
    }
    for (int slot = 0; slot < numFound; ++slot) {
        checkCardMemory(report, detector, slot, access.memory);
        if (found.channels[slot] != 0) {
            checkBoot(report, detector, slot, found.channels[slot], access.ports);
        }
    }
    return found;
}

}  // namespace cardcheck
