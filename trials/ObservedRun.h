// The driver on simulated cards in virtual time, judged pass by pass: what it does on the bus and
// in card memory, and what its client gets, against the reference host. One for a process, since
// the driver's board manager is.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "BoardMgr.h"
#include "ObservedPc.h"
#include "ReferenceHost.h"

namespace trials {

class ObservedRun {
  public:
    // Makes the board manager, which finds the cards. The load files are in the working directory.
    explicit ObservedRun(const cardsim::SimulatedPc::Options& options);

    ObservedPc& pc() { return simulatedPc; }
    ReferenceHost& host() { return referenceHost; }
    BoardMgr& manager() { return boardManager; }

    void boot();
    // Goes through the cycle until the client, which is called after the sleep of each pass, throws
    // cardsim::PowerOff.
    void cycle(std::function<void()> client);

    // What the client does, for the driver and the reference host alike.
    void send(int type, std::vector<unsigned char> bytes);
    void setMonitorChannel(int channel);
    void setEnablePlayback(bool enabled);
    void setRecording(bool on);
    // Takes up to so many packets and compares them with those that are due; how many there were.
    std::uint64_t takePackets(std::uint64_t atMost);
    // Takes all of them: none may be missing.
    void takeAllPackets();

    // Follows from everything that happened: two runs with the same digest went the same way.
    std::uint64_t digest() const { return hash; }

  private:
    Detected judgeDetection();
    void beginPass();
    void judgePass();
    void remember(std::uint64_t what);
    void rememberAll(const std::vector<Access>& record);
    std::uint64_t turns() const;

    ObservedPc simulatedPc;
    BoardMgr& boardManager;
    ReferenceHost referenceHost;
    std::uint64_t turnsBefore = 0;
    MemoryImage memoryBefore;
    std::uint64_t passStart = 0;
    std::uint64_t passes = 0;
    std::uint64_t packets = 0;
    std::uint64_t hash = 0xCBF29CE484222325;
};

}  // namespace trials
