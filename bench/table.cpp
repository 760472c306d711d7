// Reads the results of the benchmark programs (JSON, in the form of Google Benchmark) and prints
// one table: what the work costs at least, what it costs with the driver, and whether that meets
// the goal. Every figure is the median of its repetitions.
//
//   bench_table RESULTS...     exit status: 0 all goals met, 1 not, 2 results missing or no results
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Figure {
    std::string benchmark;
    std::string field = "cpu_time";
};

enum class Goal { kNone, kAtMost, kAtLeast };

struct Row {
    const char* name;
    const char* unit;
    Figure floor;
    Figure driver;
    Goal goal = Goal::kNone;
    double limit = 0;
};

// A name with a colon compares two figures of the driver.
const Row kRows[] = {
    {"exchange, 4 channels",
     "ns",
     {"exchange_4/floor"},
     {"exchange_4/driver"},
     Goal::kAtMost,
     1.25},
    {"- without the port accesses", "ns", {"exchange_4/bare_floor"}, {"exchange_4/bare_driver"}},
    {"- 100,000 packets waiting : none",
     "ns",
     {"exchange_4/driver"},
     {"exchange_4/backlog"},
     Goal::kAtMost,
     1.25},
    {"- end of a long run : its start",
     "ns",
     {"exchange_4/long_run", "first_ns"},
     {"exchange_4/long_run", "last_ns"},
     Goal::kAtMost,
     1.25},
    {"exchange, 8 channels",
     "ns",
     {"exchange_8/floor"},
     {"exchange_8/driver"},
     Goal::kAtMost,
     1.25},
    {"- without the port accesses", "ns", {"exchange_8/bare_floor"}, {"exchange_8/bare_driver"}},
    {"- 100,000 packets waiting : none",
     "ns",
     {"exchange_8/driver"},
     {"exchange_8/backlog"},
     Goal::kAtMost,
     1.25},
    {"- end of a long run : its start",
     "ns",
     {"exchange_8/long_run", "first_ns"},
     {"exchange_8/long_run", "last_ns"},
     Goal::kAtMost,
     1.25},
    {"queue, append and take, 1 thread", "ns", {"queue_1_floor"}, {"queue_1_driver"}},
    {"queue, append and take, 2 threads",
     "ns",
     {"queue_2_floor", "real_time"},
     {"queue_2_driver", "real_time"}},
    {"drain, a packet, 10,000 : 1,000",
     "ns",
     {"drain/1000", "packet_ns"},
     {"drain/10000", "packet_ns"},
     Goal::kAtMost,
     1.5},
    {"drain, a packet, 100,000 : 1,000",
     "ns",
     {"drain/1000", "packet_ns"},
     {"drain/100000", "packet_ns"},
     Goal::kAtMost,
     1.5},
    {"drain, a packet, 1,000,000 : 1,000",
     "ns",
     {"drain/1000", "packet_ns"},
     {"drain/1000000", "packet_ns"},
     Goal::kAtMost,
     1.5},
    {"ring, 600 bytes in and out", "ns", {"ring_floor"}, {"ring_driver"}},
    {"boot, port accesses a byte",
     "",
     {"boot_floor", "accesses"},
     {"boot_driver", "accesses"},
     Goal::kAtMost,
     1},
    {"boot, processor time a byte", "ns", {"boot_floor"}, {"boot_driver"}},
    {"getPacket, audio", "ns", {"getPacket_floor"}, {"getPacket_driver"}, Goal::kAtMost, 1.5},
    {"- beside the same stores", "ns", {"getPacket_stores"}, {"getPacket_driver"}},
    {"- end of the run : its start",
     "ns",
     {"getPacket_age", "first_ns"},
     {"getPacket_age", "last_ns"},
     Goal::kAtMost,
     1.25},
    {"getPacket, nothing waits", "ns", {"getPacket_empty_floor"}, {"getPacket_empty_driver"}},
    {"transfers, cards to Java : the cycle's",
     "/s",
     {"headroom", "cycle"},
     {"headroom", "chain"},
     Goal::kAtLeast,
     10},
    {"idle, processor time a minute", "ms", {"idle", "sleeper_ms"}, {"idle", "driver_ms"}},
};

// Samples by benchmark and field.
using Samples = std::map<std::string, std::map<std::string, std::vector<double>>>;

void readResults(const std::string& file, Samples& samples) {
    std::ifstream stream(file);
    const auto results = nlohmann::json::parse(stream);
    for (const auto& result : results.at("benchmarks")) {
        if (result.at("run_type") != "iteration") {
            continue;  // what Google Benchmark makes of the repetitions
        }
        if (result.contains("error_occurred")) {
            throw std::runtime_error(result.at("run_name").get<std::string>() + ": " +
                                     result.at("error_message").get<std::string>());
        }
        for (const auto& [field, value] : result.items()) {
            if (value.is_number()) {
                samples[result.at("run_name")][field].push_back(value);
            }
        }
    }
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// A benchmark goes by its own name and, behind a slash, by how it was run.
double valueOf(const Figure& figure, const Samples& samples) {
    for (const auto& [name, fields] : samples) {
        const auto values = fields.find(figure.field);
        const bool isIt = (name + '/').rfind(figure.benchmark + '/', 0) == 0;
        if (isIt && values != fields.end()) {
            return median(values->second);
        }
    }
    throw std::runtime_error("no result for " + figure.benchmark + ", " + figure.field);
}

std::string text(double value, const char* unit) {
    char digits[32];
    const int decimals = value < 100 ? 1 : 0;
    std::snprintf(digits, sizeof(digits), "%.*f", decimals, value);
    return std::string(digits) + (unit[0] == '/' || unit[0] == '\0' ? "" : " ") + unit;
}

std::string goalText(const Row& row) {
    if (row.goal == Goal::kNone) {
        return "";
    }
    char text[32];
    std::snprintf(text, sizeof(text), "%s %.4g",
                  row.goal == Goal::kAtMost ? "<=" : ">=", row.limit);
    return text;
}

void printLine(const std::string& name, const std::string& floor, const std::string& driver,
               const std::string& ratio, const std::string& goal, const std::string& met) {
    std::printf("| %-38s | %9s | %9s | %7s | %7s | %-4s |\n", name.c_str(), floor.c_str(),
                driver.c_str(), ratio.c_str(), goal.c_str(), met.c_str());
}

// Whether the row meets its goal.
bool printRow(const Row& row, const Samples& samples) {
    const double floor = valueOf(row.floor, samples);
    const double driver = valueOf(row.driver, samples);
    const double ratio = driver / floor;
    const bool met = row.goal == Goal::kNone ||
                     (row.goal == Goal::kAtMost ? ratio <= row.limit : ratio >= row.limit);
    char ratioText[32];
    std::snprintf(ratioText, sizeof(ratioText), ratio < 100 ? "%.2f" : "%.0f", ratio);
    printLine(row.name, text(floor, row.unit), text(driver, row.unit), ratioText, goalText(row),
              row.goal == Goal::kNone ? ""
              : met                   ? "yes"
                                      : "NO");
    return met;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Samples samples;
        for (int i = 1; i < argc; ++i) {
            readResults(argv[i], samples);
        }
        printLine("what", "floor", "driver", "ratio", "goal", "met?");
        printLine("---", "--:", "--:", "--:", "--:", "---");
        bool allMet = true;
        for (const Row& row : kRows) {
            allMet = printRow(row, samples) && allMet;
        }
        return allMet ? 0 : 1;
    } catch (const std::exception& failure) {
        std::cerr << "bench_table: " << failure.what() << '\n';
        return 2;
    }
}
