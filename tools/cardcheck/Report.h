// The rows that cardcheck prints, and the count of them:
//
//     PASS  card 0: 4 channels at 0x300
//     FAIL  /dev/port: there is none
//     Fix: mknod /dev/port c 1 4 && ...
#pragma once

#include <ostream>
#include <string>

namespace cardcheck {

class Report {
  public:
    explicit Report(std::ostream& stream) : out(stream) {}

    void pass(const std::string& name, const std::string& seen);
    void skip(const std::string& name, const std::string& why);
    void fail(const std::string& name, const std::string& cause, const std::string& fix);
    // The driver works as it is, but not as well as it could.
    void warn(const std::string& name, const std::string& cause, const std::string& fix);

    bool hasFailed() const { return failed > 0; }
    // One line with the count of the rows.
    void summarise();

  private:
    std::ostream& out;
    int passed = 0;
    int failed = 0;
    int skipped = 0;
    int warned = 0;
};

// "0x0080", with at least that many digits.
std::string hex(unsigned long value, int digits);
// "1 word", "2 words".
std::string counted(unsigned long count, const std::string& noun);

}  // namespace cardcheck
