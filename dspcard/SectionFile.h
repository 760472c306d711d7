// Reader of a section file, the binary file with the words of one block of the firmware, in the
// host's byte order. Reads as it goes, on the thread that boots the card; the file is closed with
// the object.
#pragma once

#include <cstdint>
#include <fstream>

class SectionFile {
  public:
    static constexpr int kWordsPerRead = 256;
    using Words = std::uint16_t[kWordsPerRead];

    explicit SectionFile(const char* fileName);

    // False when there is no such file, or it is none that can be read, such as a directory.
    bool isOpen() const { return file.is_open(); }
    // Reads the next words, as many as wanted and as fit; how many there were, 0 at the end of the
    // file. Half a word at the end does not count.
    int read(Words& words, int wanted);
    // The sum of the words read, modulo 0x10000.
    std::uint16_t checksum() const { return sum; }

  private:
    std::ifstream file;
    std::uint16_t sum = 0;
};
