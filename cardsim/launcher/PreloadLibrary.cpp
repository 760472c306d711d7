#include "launcher/PreloadLibrary.h"

#include <filesystem>
#include <stdexcept>

namespace cardsim {

namespace fs = std::filesystem;

std::string findPreloadLibrary(const std::string& name) {
    const fs::path prefix = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
    for (const char* folder : {"lib", "lib/cardsim", "lib/" LIBRARY_ARCHITECTURE "/cardsim"}) {
        const fs::path library = prefix / folder / name;
        if (fs::exists(library)) {
            if (library.string().find_first_of(" :") != std::string::npos) {
                throw std::runtime_error(library.string() +
                                         ": the dynamic linker preloads nothing from a path with "
                                         "a space or a colon");
            }
            return library;
        }
    }
    throw std::runtime_error(name + " is not in " + (prefix / "lib").string());
}

}  // namespace cardsim
