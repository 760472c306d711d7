// Makes the section files of the demonstration firmware: words that stand for code and tables, not
// instructions of a real DSP. The same at every build, and different in every section, so that a
// section in the wrong place shows.
//
//   makeSections FOLDER      exit status: 0 made, 1 a file cannot be written, 2 wrong usage
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace {

struct Section {
    const char* fileName;
    int words;
    std::uint32_t seed;
};

constexpr Section kSections[] = {
    {"VECT4.BIN", 0x40, 41}, {"CODE4.BIN", 0x180, 42}, {"TABLE4.BIN", 0x64, 43},
    {"VECT8.BIN", 0x40, 81}, {"CODE8.BIN", 0x200, 82}, {"TABLE8.BIN", 0x64, 83},
    {"DTMF8.BIN", 0x20, 84},
};

bool make(const std::filesystem::path& folder, const Section& section) {
    std::ofstream file(folder / section.fileName, std::ios::binary);
    std::uint32_t state = section.seed;
    for (int i = 0; i < section.words; ++i) {
        state = state * 1664525u + 1013904223u;
        file.put(static_cast<char>(state >> 16 & 0xFF));
        file.put(static_cast<char>(state >> 24));
    }
    return static_cast<bool>(file.flush());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: makeSections FOLDER\n");
        return 2;
    }
    std::error_code failed;
    std::filesystem::create_directories(argv[1], failed);
    for (const Section& section : kSections) {
        if (!make(argv[1], section)) {
            std::fprintf(stderr, "makeSections: cannot write %s/%s\n", argv[1], section.fileName);
            return 1;
        }
    }
    return 0;
}
