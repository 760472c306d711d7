#include "SectionFile.h"

#include <algorithm>
#include <numeric>

#include "RegularFile.h"

SectionFile::SectionFile(const char* fileName) {
    openRegularFile(file, fileName);
}

int SectionFile::read(Words& words, int wanted) {
    file.read(reinterpret_cast<char*>(words), std::min(wanted, kWordsPerRead) * 2);
    const int wordsRead = static_cast<int>(file.gcount()) / 2;
    sum = static_cast<std::uint16_t>(std::accumulate(words, words + wordsRead, unsigned{sum}));
    return wordsRead;
}
