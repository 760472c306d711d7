// Programs, run by a shell as a user runs them, and what they answer.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

struct Answer {
    int status;
    std::string out, err;
};

inline std::string contentOf(const std::filesystem::path& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

// The commands run in the folder with the load files, where $files is a folder of their own.
class Shell {
  public:
    // variables: "name=value ..."
    explicit Shell(std::string variables) : programs(std::move(variables)) {}
    ~Shell() { std::filesystem::remove_all(folder); }
    Shell(const Shell&) = delete;
    Shell& operator=(const Shell&) = delete;

    Answer run(const std::string& command) const {
        const std::string whole = "export files=" + folder.string() + " " + programs +
                                  "; cd " FIRMWARE_FOLDER " && { " + command +
                                  "\n} >$files/out 2>$files/err";
        const int status = std::system(whole.c_str());
        return {WEXITSTATUS(status), contentOf(folder / "out"), contentOf(folder / "err")};
    }

  private:
    char pattern[32] = "/tmp/shell-test-XXXXXX";

  public:
    const std::filesystem::path folder = mkdtemp(pattern);

  private:
    const std::string programs;
};
