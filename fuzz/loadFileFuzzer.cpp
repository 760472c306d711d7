// Load files and section files. Input: the load file, up to the first zero byte; then the section
// file "A.BIN". There is also a section file "B.BIN" of 8 words.
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "DSPBootLoader.h"
#include "DirectIO.h"
#include "FuzzedCards.h"

namespace {

constexpr std::size_t kBytesOfB = 16;

FuzzedCards* cards;

void write(const char* name, const std::string& content) {
    std::ofstream(name, std::ios::binary) << content;
}

// How many bytes a boot would send at most: no section is longer than its file says or than 0xFFFF.
std::uint64_t mostBootBytes(const std::string& loadFile, std::size_t sectionBytes) {
    std::istringstream tokens(loadFile);
    std::uint64_t records = 0;
    for (std::string token; tokens >> token;) {
        ++records;
    }
    return 10 + records * (6 + std::max(sectionBytes, kBytesOfB));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceConsole();
    cards = new FuzzedCards;
    cards->registers[0x2] = 0x20;
    DirectIO::getInstance().allowPortAccess();
    std::string folder = (std::filesystem::temp_directory_path() / "loadFileXXXXXX").string();
    std::filesystem::current_path(mkdtemp(folder.data()));
    write("B.BIN", std::string(kBytesOfB, 'b'));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(bytes), size);
    const std::size_t end = std::min(input.find('\0'), input.size());
    const std::string loadFile = input.substr(0, end);
    const std::string section = end < size ? input.substr(end + 1) : std::string();
    write("LOAD.TXT", loadFile);
    write("A.BIN", section);

    cards->bootBytes = 0;
    DSPBootloader loader;
    loader.init(0x300, 4, 0);
    const bool booted = loader.bootload("LOAD.TXT");
    require(cards->bootBytes >= 10, "the header is sent whatever the files hold");
    require(cards->bootBytes <= mostBootBytes(loadFile, section.size()),
            "no more is sent than the files hold");
    require(!booted || cards->bootBytes % 2 == 0, "a boot consists of words");
    return 0;
}
