#include "BootLoadFile.h"

#include <cctype>
#include <charconv>
#include <cstring>
#include <limits>

#include "RegularFile.h"

namespace {

constexpr unsigned long kMaxSectionSize = 0xFFFF;  // the block header has 16 bits for it

// One token, and whether it was longer than what was kept of it.
template <int MAX_LENGTH>
struct Token {
    char text[MAX_LENGTH + 1];
    int length;
    bool tooLong;

    // False when the file ends before the token begins.
    bool read(std::istream& file) {
        file >> std::ws;
        length = 0;
        tooLong = false;
        for (int next = file.peek(); next != EOF && std::isspace(next) == 0; next = file.peek()) {
            const char character = static_cast<char>(file.get());
            if (length < MAX_LENGTH) {
                text[length++] = character;
            } else {
                tooLong = true;
            }
        }
        text[length] = '\0';
        return length > 0;
    }
};

using NumberToken = Token<BootLoadFile::kMaxNumberLength>;

// The number behind the dropped first character; false when there is none.
bool parseNumber(const NumberToken& token, unsigned long& number) {
    const char* const end = token.text + token.length;
    const auto result = std::from_chars(token.text + 1, end, number, 16);
    return result.ec == std::errc() && result.ptr == end;
}

std::string problemOf(const char* what, const NumberToken& token, unsigned long& number) {
    if (token.tooLong) {
        return std::string(what) + " is longer than 6 characters: " + token.text + "...";
    }
    if (!parseNumber(token, number)) {
        return std::string(what) + " is not hexadecimal after its first character: " + token.text;
    }
    return {};
}

}  // namespace

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
    NumberToken address;
    NumberToken size;
    Token<kMaxFileNameLength> fileName;
    Token<kMaxCommentLength> comment;
    leftOver = 0;
    const auto readNext = [this](auto& token) {
        const bool isThere = token.read(file);
        leftOver += isThere ? 1 : 0;
        return isThere;
    };
    if (!readNext(address) || !readNext(size) || !readNext(fileName) || !readNext(comment)) {
        return false;
    }
    leftOver = 0;
    ++recordsRead;

    unsigned long words = 0;
    record.problem = problemOf("address", address, record.address);
    if (record.isValid()) {
        record.problem = problemOf("size", size, words);
    }
    if (record.isValid() && words > kMaxSectionSize) {
        record.problem = std::string("size is above FFFF: ") + size.text;
    }
    if (record.isValid() && fileName.tooLong) {
        record.problem =
            std::string("section file name is longer than 31 characters: ") + fileName.text + "...";
    }
    if (record.isValid() && comment.tooLong) {
        record.problem =
            std::string("comment is longer than 15 characters: ") + comment.text + "...";
    }
    record.size = static_cast<int>(words);
    std::strcpy(record.sectionFileName, fileName.text);
    record.droppedFromAddress = address.text[0];
    record.droppedFromSize = size.text[0];
    std::strcpy(record.addressToken, "0x");
    std::strcat(record.addressToken, address.text + 1);
    return true;
}
