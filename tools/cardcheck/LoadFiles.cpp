#include "LoadFiles.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "BootLoadFile.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "SectionFile.h"

namespace cardcheck {

namespace {

namespace fs = std::filesystem;

constexpr const char* kCorrectRecord =
    "write it as \"h0080 h0040 VECT4.BIN vectors\": address and size of up to 6 characters, the "
    "first dropped and the rest hexadecimal, the size up to FFFF; a file name of up to 31 "
    "characters; a comment of up to 15, without blanks";
constexpr unsigned long kHighestAddress = 0xFFFF;  // the block header has 16 bits for it

// What is wrong with something, and how to mend it; nothing when nothing is.
struct Fault {
    std::string cause;
    std::string fix;

    bool isThere() const { return !cause.empty(); }
};

std::vector<std::string> filesHere() {
    std::vector<std::string> names;
    std::error_code unreadable;
    for (const auto& entry : fs::directory_iterator(".", unreadable)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string workingDirectory() {
    std::error_code unreadable;
    return fs::current_path(unreadable);
}

bool isLoadFileName(const std::string& name) {
    constexpr const char* kStart = "LOAD_";
    constexpr const char* kEnd = ".TXT";
    return name.size() > 8 && name.compare(0, 5, kStart) == 0 &&
           name.compare(name.size() - 4, 4, kEnd) == 0;
}

// The user may not read the file or folder.
Fault faultOfUnreadable(const std::string& path, const std::string& mode) {
    return {path + " cannot be read: it is " + ownersAndMode(path),
            "let the user that runs the driver read it: chmod " + mode + " " + path +
                ", or chown it to that user (dspcard for the service)"};
}

Fault faultOfFolder() {
    const bool isReadable = faccessat(AT_FDCWD, ".", R_OK | X_OK, AT_EACCESS) == 0;
    return isReadable ? Fault() : faultOfUnreadable(workingDirectory(), "a+rx");
}

// Why a file cannot be opened, which the driver does not ask.
Fault faultOfMissing(const std::string& name) {
    std::error_code unreadable;
    if (Fault fault = faultOfFolder(); fault.isThere()) {
        return fault;
    }
    if (fs::is_regular_file(name, unreadable)) {
        return faultOfUnreadable(name, "a+r");
    }
    if (fs::exists(name, unreadable)) {
        return {name + " is not a regular file", "see with ls -l what it is"};
    }
    const std::vector<std::string> names = filesHere();
    const auto similar = std::find_if(names.begin(), names.end(), [&name](const auto& other) {
        return strcasecmp(other.c_str(), name.c_str()) == 0;
    });
    if (similar != names.end()) {
        return {"no " + name + ", but " + *similar, "mv " + *similar + " " + name};
    }
    return {"no " + name + " in " + workingDirectory(),
            "copy it there, or start in the folder where it is"};
}

bool isDigitButZero(char character) {
    return character >= '1' && character <= '9';
}

Fault faultOfDropped(const std::string& what, char dropped, unsigned long left) {
    if (!isDigitButZero(dropped)) {
        return {};
    }
    return {"the first character of the " + what + ", " + dropped + ", is dropped, which leaves " +
                hex(left, 4),
            "put a letter in front of the number, as in h0080"};
}

Fault faultOf(const BootLoadFile::Record& record) {
    if (!record.isValid()) {
        return {record.problem, kCorrectRecord};
    }
    if (Fault fault = faultOfDropped("address", record.addressToken.text[0], record.address);
        fault.isThere()) {
        return fault;
    }
    if (Fault fault = faultOfDropped("size", record.sizeToken.text[0], record.size);
        fault.isThere()) {
        return fault;
    }
    if (record.address > kHighestAddress) {
        return {
            "address " + hex(record.address, 4) + " is above FFFF: only its low 16 bits are sent",
            "link the section to an address up to FFFF"};
    }
    if (record.size == 0) {
        return {"size 0 ends the boot and starts the DSP, whatever follows",
                "give the size of the section in words, or take the record out"};
    }
    return {};
}

// Reads as many words of the section as the record wants; the checksum is of those.
Fault readSection(const BootLoadFile::Record& record, std::uint16_t& checksum) {
    SectionFile section(record.sectionFile.text);
    if (!section.isOpen()) {
        return faultOfMissing(record.sectionFile.text);
    }
    unsigned long wordsRead = 0;
    while (wordsRead < record.size) {
        SectionFile::Words words;
        const int more = section.read(words, static_cast<int>(record.size - wordsRead));
        if (more == 0) {
            return {std::string(record.sectionFile.text) + " ends after " +
                        counted(wordsRead, "word") + " of " + std::to_string(record.size),
                    "copy the section file anew, or correct the size in the record"};
        }
        wordsRead += static_cast<unsigned long>(more);
    }
    checksum = section.checksum();
    return {};
}

class LoadFileCheck {
  public:
    LoadFileCheck(Report& rows, const std::string& loadFileName)
        : report(rows), name(loadFileName), file(name.c_str()) {}

    void run() {
        if (!file.isOpen()) {
            const Fault fault = faultOfMissing(name);
            report.fail(name, fault.cause, fault.fix);
        } else if (!file.skipHeader()) {
            report.fail(name, "ends within its two header lines",
                        "begin it with two lines of any text; the records follow on lines of "
                        "their own");
        } else {
            checkRecords();
            sumUp();
        }
    }

  private:
    void checkRecords() {
        BootLoadFile::Record record;
        while (isReadable && file.readRecord(record)) {
            checkRecord(record);
        }
    }

    void checkRecord(const BootLoadFile::Record& record) {
        const std::string row = name + " record " + std::to_string(file.recordNumber());
        std::uint16_t checksum = 0;
        Fault fault = faultOf(record);
        if (!fault.isThere()) {
            fault = readSection(record, checksum);
        }
        if (fault.isThere()) {
            ++wrongRecords;
            isReadable = record.isValid();  // what follows may be shifted by a token
            report.fail(row, fault.cause, fault.fix);
            return;
        }
        totalWords += record.size;
        totalChecksum = static_cast<std::uint16_t>(totalChecksum + checksum);
        report.pass(row, std::string(record.sectionFile.text) + ", " +
                             counted(record.size, "word") + " to " + hex(record.address, 4) +
                             ", checksum " + std::to_string(checksum));
    }

    void sumUp() {
        const auto records = static_cast<unsigned>(file.recordNumber());
        if (file.hasReadError()) {
            report.fail(name, "cannot be read after record " + std::to_string(records),
                        "copy the file anew");
        } else if (isReadable && file.tokensLeftOver() > 0) {
            report.fail(name,
                        "ends in a record that is not whole, with " +
                            counted(static_cast<unsigned>(file.tokensLeftOver()), "token") +
                            " of 4: its section would be left out",
                        kCorrectRecord);
        } else if (!isReadable) {
            report.skip(name, "not read further than record " + std::to_string(records));
        } else if (wrongRecords > 0) {
            report.skip(name, "not added up: " + std::to_string(wrongRecords) + " of " +
                                  counted(records, "record") + " wrong");
        } else if (records == 0) {
            report.fail(name, "no record after the two header lines: the DSP would get no firmware",
                        "add a record for each section, as in \"h0080 h0040 VECT4.BIN vectors\"");
        } else {
            report.pass(name, counted(records, "record") + ", " + counted(totalWords, "word") +
                                  ", checksum " + std::to_string(totalChecksum));
        }
    }

    Report& report;
    const std::string name;
    BootLoadFile file;
    bool isReadable = true;
    int wrongRecords = 0;
    unsigned long totalWords = 0;
    std::uint16_t totalChecksum = 0;  // modulo 0x10000, as that of a section
};

// The load files in the working directory, and those that a card found will ask for.
std::vector<std::string> namesWanted(const FoundCards& found) {
    std::vector<std::string> names = filesHere();
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const auto& name) { return !isLoadFileName(name); }),
                names.end());
    for (const int channels : found.channels) {
        const std::string name = channels == 4 ? DSPBoardFourChannel::kLoadFileName
                                               : DSPBoardEightChannel::kLoadFileName;
        if (channels != 0 && std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    }
    return names;
}

}  // namespace

void checkLoadFiles(Report& report, const std::vector<std::string>& names,
                    const FoundCards& found) {
    const std::vector<std::string> wanted = names.empty() ? namesWanted(found) : names;
    if (wanted.empty()) {
        const Fault fault = faultOfFolder();
        report.fail("load files",
                    fault.isThere() ? fault.cause : "no LOAD_*.TXT in " + workingDirectory(),
                    fault.isThere() ? fault.fix
                                    : "start in the folder with the cards' firmware, or name the "
                                      "load files");
    }
    for (const std::string& name : wanted) {
        LoadFileCheck(report, name).run();
    }
}

}  // namespace cardcheck
