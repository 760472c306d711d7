#include "BootLoadFile.h"

#include <cctype>
#include <charconv>
#include <cstring>
#include <limits>

#include "RegularFile.h"

namespace {

constexpr unsigned long kMaxSectionSize = 0xFFFF;  // the block header has 16 bits for it

using Record = BootLoadFile::Record;
using NumberToken = decltype(Record::addressToken);

// The number behind the dropped first character; false when there is none.
bool parseNumber(const NumberToken& token, unsigned long& number) {
    const char* const end = token.text + token.length;
    const auto result = std::from_chars(token.text + 1, end, number, 16);
    return result.ec == std::errc() && result.ptr == end;
}

std::string problemOfNumber(const char* what, const NumberToken& token, unsigned long& number) {
    if (token.tooLong) {
        return std::string(what) + " is longer than 6 characters: " + token.text + "...";
    }
    if (!parseNumber(token, number)) {
        return std::string(what) + " is not hexadecimal after its first character: " + token.text;
    }
    return {};
}

// The first that is wrong with the tokens, whose numbers go into the record.
std::string problemOf(Record& record) {
    std::string problem = problemOfNumber("address", record.addressToken, record.address);
    if (problem.empty()) {
        problem = problemOfNumber("size", record.sizeToken, record.size);
    }
    if (!problem.empty()) {
        return problem;
    }
    if (record.size > kMaxSectionSize) {
        return std::string("size is above FFFF: ") + record.sizeToken.text;
    }
    const auto& name = record.sectionFile;
    if (name.tooLong) {
        return std::string("section file name is longer than 31 characters: ") + name.text + "...";
    }
    if (std::strlen(name.text) != static_cast<std::size_t>(name.length)) {
        return std::string("section file name has a zero byte after: ") + name.text;
    }
    if (record.comment.tooLong) {
        return std::string("comment is longer than 15 characters: ") + record.comment.text + "...";
    }
    return {};
}

}  // namespace

template <int MAX_LENGTH>
bool BootLoadFile::Token<MAX_LENGTH>::read(std::istream& stream) {
    stream >> std::ws;
    length = 0;
    tooLong = false;
    for (int next = stream.peek(); next != EOF && std::isspace(next) == 0; next = stream.peek()) {
        const char character = static_cast<char>(stream.get());
        if (length < MAX_LENGTH) {
            text[length++] = character;
        } else {
            tooLong = true;
        }
    }
    text[length] = '\0';
    return length > 0;
}

BootLoadFile::BootLoadFile(const char* fileName) {
    openRegularFile(file, fileName);
}

bool BootLoadFile::skipHeader() {
    constexpr auto kAll = std::numeric_limits<std::streamsize>::max();
    for (int line = 0; line < 2; ++line) {
        file.ignore(kAll, '\n');
        if (!file.good()) {
            return false;
        }
    }
    return true;
}

bool BootLoadFile::readRecord(Record& record) {
    leftOver = 0;
    const auto readNext = [this](auto& token) {
        const bool isThere = token.read(file);
        leftOver += isThere ? 1 : 0;
        return isThere;
    };
    if (!readNext(record.addressToken) || !readNext(record.sizeToken) ||
        !readNext(record.sectionFile) || !readNext(record.comment)) {
        return false;
    }
    leftOver = 0;
    ++recordsRead;
    record.problem = problemOf(record);
    return true;
}
