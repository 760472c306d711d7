// Reader of a load file, the text file that says which blocks a boot consists of: two header lines,
// then records of four tokens separated by white space (address, size in words, section file name,
// comment). The first character of an address or a size is dropped, the rest is hexadecimal.
//
// A record that cannot be meant (a token that is too long, a number that is not hexadecimal or too
// large) is delivered with its problem named, so that no byte of it is sent. Reads as it goes, on
// the thread that boots the card; the file is closed with the object.
#pragma once

#include <fstream>
#include <string>

class BootLoadFile {
  public:
    static constexpr int kMaxNumberLength = 6;
    static constexpr int kMaxFileNameLength = 31;
    static constexpr int kMaxCommentLength = 15;

    // One token, and whether it was longer than what is kept of it.
    template <int MAX_LENGTH>
    struct Token {
        char text[MAX_LENGTH + 1] = {};
        int length = 0;
        bool tooLong = false;

        // False when the stream ends before the token begins.
        bool read(std::istream& stream);
    };

    struct Record {
        Token<kMaxNumberLength> addressToken;
        Token<kMaxNumberLength> sizeToken;
        Token<kMaxFileNameLength> sectionFile;
        Token<kMaxCommentLength> comment;
        // What they mean; only a record that is valid has both.
        unsigned long address = 0;  // 20 bits
        unsigned long size = 0;     // words, 0 to 0xFFFF
        std::string problem;        // what is wrong with the record; empty when nothing is

        bool isValid() const { return problem.empty(); }
    };

    explicit BootLoadFile(const char* fileName);

    // False when there is no such file, or it is none that can be read, such as a directory.
    bool isOpen() const { return file.is_open(); }
    // Skips the two header lines; false when the file ends before them or cannot be read.
    bool skipHeader();
    // Reads the next record; false at the end of the file, also when the last record is not whole,
    // and when the file cannot be read further.
    bool readRecord(Record& record);
    bool hasReadError() const { return file.bad(); }
    // The tokens of a last record that is not whole, 0 to 3; known once readRecord returned false.
    int tokensLeftOver() const { return leftOver; }
    // The number of the record read last, the first being 1.
    int recordNumber() const { return recordsRead; }

  private:
    std::ifstream file;
    int recordsRead = 0;
    int leftOver = 0;
};
