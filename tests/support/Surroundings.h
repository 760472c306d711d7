// What lies around the driver, for a test to hold: the console, the working directory, the queues.
#pragma once

#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "javaint/MessageDispatcher.h"

// Keeps what the driver prints from the test's own output, unless the test has failed.
class Console {
  public:
    Console() { start(); }
    ~Console() {
        stop();
        std::cout << (testing::Test::HasFailure() ? shown : std::string());
    }
    // Takes what was printed since the last time into out and err.
    const Console& take() {
        stop();
        start();
        return *this;
    }
    std::string out, err;

  private:
    static void start() {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
    }
    void stop() {
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        shown += out + err;
    }
    std::string shown;
};

// An empty working directory for as long as it lives: firmware is looked for there.
class WorkingFolder {
  public:
    WorkingFolder() { std::filesystem::current_path(mkdtemp(path.data())); }
    ~WorkingFolder() {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(path);
    }
    static void write(const std::string& name, const std::string& content) {
        std::ofstream(name, std::ios::binary) << content;
    }

  private:
    std::string path = testing::TempDir() + "firmwareXXXXXX";
};

inline auto openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

using Packets = std::vector<std::unique_ptr<Packet>>;
using Bytes = std::vector<int>;

inline MessageDispatcher& dispatcher() {
    return MessageDispatcher::getInstance();
}
inline Bytes payload(const Packet& packet) {
    return {packet.getData(), packet.getData() + packet.getLength()};
}
inline Packets takePackets() {
    Packets packets;
    while (Packet* const packet = dispatcher().getPacketFromSendQueue()) {
        packets.emplace_back(packet);
    }
    return packets;
}

// Type and payload of the packets but those with audio.
inline std::vector<Bytes> reportsIn(const Packets& packets) {
    std::vector<Bytes> reports;
    for (const auto& packet : packets) {
        if (packet->getType() != PACKET_RECORDED_DATA) {
            reports.push_back(payload(*packet));
            reports.back().insert(reports.back().begin(), packet->getType());
        }
    }
    return reports;
}
inline Bytes errorReport(int code, const std::string& text) {
    Bytes report = {7, code, static_cast<int>(text.size())};
    report.insert(report.end(), text.begin(), text.end());
    return report;
}

// The same settings for all lines.
inline std::vector<unsigned char> settingsTable(unsigned char trigger, unsigned char delay_s,
                                                unsigned char beep = BEEP_OFF) {
    std::vector<unsigned char> table;
    while (table.size() < 48) {
        table.insert(table.end(), {beep, trigger, delay_s});
    }
    return table;
}
