// Opens firmware files. A directory opens too, and a pipe blocks until somebody writes: neither can
// be firmware, so both count as files that cannot be opened.
#pragma once

#include <filesystem>
#include <fstream>
#include <system_error>

// Opens name for binary reading; whether that succeeded.
inline bool openRegularFile(std::ifstream& file, const char* name) {
    std::error_code unreadable;
    if (std::filesystem::is_regular_file(name, unreadable)) {
        file.open(name, std::ios::binary);
    }
    return file.is_open();
}
