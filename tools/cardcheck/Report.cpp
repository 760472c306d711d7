#include "Report.h"

#include <iomanip>
#include <sstream>

namespace cardcheck {

void Report::pass(const std::string& name, const std::string& seen) {
    ++passed;
    out << "PASS  " << name << ": " << seen << std::endl;
}

void Report::skip(const std::string& name, const std::string& why) {
    ++skipped;
    out << "SKIP  " << name << ": " << why << std::endl;
}

void Report::fail(const std::string& name, const std::string& cause, const std::string& fix) {
    ++failed;
    out << "FAIL  " << name << ": " << cause << "\nFix: " << fix << std::endl;
}

void Report::warn(const std::string& name, const std::string& cause, const std::string& fix) {
    ++warned;
    out << "WARN  " << name << ": " << cause << "\nFix: " << fix << std::endl;
}

void Report::summarise() {
    out << "cardcheck: " << passed << " passed, " << failed << " failed, " << skipped
        << " skipped, " << counted(static_cast<unsigned>(warned), "warning") << std::endl;
}

std::string hex(unsigned long value, int digits) {
    std::ostringstream text;
    text << "0x" << std::uppercase << std::hex << std::setfill('0') << std::setw(digits) << value;
    return text.str();
}

std::string counted(unsigned long count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace cardcheck
