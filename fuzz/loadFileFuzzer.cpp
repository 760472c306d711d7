// Load files and section files. Input: the load file, up to the first zero byte; then the section
// file "A.BIN". There is also a section file "B.BIN" of 8 words.
#include <filesystem>
#include <fstream>

#include "DSPBootLoader.h"
#include "Fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static QuickCards cards;
    if (cards.registers[0x302] == 0) {
        std::string folder = (std::filesystem::temp_directory_path() / "loadFileXXXXXX").string();
        std::filesystem::current_path(mkdtemp(folder.data()));
        std::ofstream("B.BIN") << std::string(16, 'b');
        cards.registers[0x302] = 0x20;  // always wants a byte, is never busy
    }
    const std::string input(reinterpret_cast<const char*>(bytes), size);
    const std::size_t end = std::min(input.find('\0'), size);
    std::ofstream("LOAD.TXT") << input.substr(0, end);
    std::ofstream("A.BIN") << input.substr(std::min(end + 1, size));

    cards.bootBytes = 0;
    DSPBootloader loader;
    loader.init(0x300, 4, 0);
    const bool booted = loader.bootload("LOAD.TXT");
    // A record is eight characters at least; it sends a header and one of the files.
    const std::size_t most = 10 + (end + 1) / 8 * (6 + std::max<std::size_t>(size - end, 16));
    require(cards.bootBytes >= 10 && cards.bootBytes <= most,
            "the header is sent whatever the files hold, and no more than they hold");
    require(!booted || cards.bootBytes % 2 == 0, "a boot consists of words");
    return 0;
}
