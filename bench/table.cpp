// Reads the results of the benchmarks (JSON, in the form of Google Benchmark) and prints one table:
// what the work costs at least, what it costs with the driver, and whether their ratio meets the
// goal. Every figure is the lower quartile of its repetitions.
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

struct Row {
    const char* name;
    const char* floor;
    const char* driver;
    const char* field;  // of the results of both, in ns
    double mostRatio;
};

// A name with a colon compares two figures of the driver, or of the traps.
const Row kRows[] = {
    {"exchange, 4 channels", "exchange_4_floor", "exchange_4_driver", "cpu_time", 1.25},
    {"exchange, 8 channels", "exchange_8_floor", "exchange_8_driver", "cpu_time", 1.25},
    {"getPacket, audio", "getPacket_floor", "getPacket_driver", "cpu_time", 1.15},
    {"a second of a listener : of polling", "listener_floor", "listener_driver", "cpu_time", 1.0},
    {"backlog, a packet, 10,000 : 1,000", "drain/1000", "drain/10000", "packet_ns", 1.5},
    {"backlog, a packet, 100,000 : 1,000", "drain/1000", "drain/100000", "packet_ns", 1.5},
    {"backlog, a packet, 1,000,000 : 1,000", "drain/1000", "drain/1000000", "packet_ns", 1.5},
    {"port access, recorded : trapped", "access/plain", "access/recorded", "cpu_time", 2},
    {"release, recorded : trapped", "release/plain", "release/recorded", "cpu_time", 6},
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

// What the work takes when little disturbs it, which is what floor and driver are compared by.
double lowerQuartile(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 4);
}

double valueOf(const char* benchmark, const char* field, const Samples& samples) {
    try {
        return lowerQuartile(samples.at(benchmark).at(field));
    } catch (const std::out_of_range&) {
        throw std::runtime_error(std::string("no result for ") + benchmark + ", " + field);
    }
}

// Whether the row meets its goal.
bool printRow(const Row& row, const Samples& samples) {
    const double floor = valueOf(row.floor, row.field, samples);
    const double driver = valueOf(row.driver, row.field, samples);
    const bool met = driver / floor <= row.mostRatio;
    std::printf("| %-36s | %6.*f ns | %6.*f ns | %5.2f | <= %-4g | %-4s |\n", row.name,
                floor < 100 ? 1 : 0, floor, driver < 100 ? 1 : 0, driver, driver / floor,
                row.mostRatio, met ? "yes" : "NO");
    return met;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Samples samples;
        for (int i = 1; i < argc; ++i) {
            readResults(argv[i], samples);
        }
        std::printf("| %-36s | %9s | %9s | %5s | %-7s | %-4s |\n", "what", "floor", "driver",
                    "ratio", "goal", "met?");
        std::printf("| %-36s | %9s | %9s | %5s | %-7s | %-4s |\n", "---",
                    "--:", "--:", "--:", "---", "---");
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
