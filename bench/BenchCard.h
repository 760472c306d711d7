// The card that the benchmarks run against: registers and nothing behind them, so that a port
// access costs what the trap costs. It hands over its buffers in turn, the next one as soon as the
// last one is released, with the transfer counter advanced.
//
// Everything happens on the thread that drives the cards.
#pragma once

#include "BoardMgr.h"
#include "CardMemory.h"
#include "CardPorts.h"
#include "DSPMessageBuffer.h"
#include "ScriptedCards.h"

class BenchCard : public ScriptedCards {
  public:
    explicit BenchCard(int channels) : kind(channels == 8 ? kEightChannelCard : 0) {}

    // The buffer that is handed over, 0 or 1.
    int handedOver() const { return buffer; }
    // One of the buffers as the card sees it, once the driver has found the card.
    template <class Transfer>
    static Transfer* transferBuffer(int number) {
        return reinterpret_cast<Transfer*>(BoardMgr::getInstance().getDSPMemory() +
                                           (number == 0 ? 0 : kSecondBufferOffset));
    }

    std::uint32_t in(std::uint16_t port, int) override {
        switch (port - kBasePortBoard0) {
            case kStatusPort:
                return kind | (running && buffer == 0 ? kBufferHandedOver : 0u);
            case kStatusPort1:
                return running && buffer == 1 ? kBufferHandedOver : 0;
            case kDataPort:
                return data;
            default:
                return 0;
        }
    }
    void out(std::uint16_t port, int, std::uint32_t value) override {
        const int statusPort = buffer == 0 ? kStatusPort : kStatusPort1;
        if (port == kBasePortBoard0 + kDataPort) {
            data = value;
        } else if (running && value == kReleaseBuffer && port == kBasePortBoard0 + statusPort) {
            buffer ^= 1;  // the counter stands first in the buffers of both kinds
            transferBuffer<DSPTransferFourChannel>(buffer)->bufferCounter = ++counter;
        }
    }
    bool sleep(std::uint64_t) override {
        if (onSleep) {
            onSleep();
        }
        return true;
    }
    bool processorTime(std::clock_t&) override { return false; }

    bool running = false;           // hands over buffers
    std::function<void()> onSleep;  // the driver ends a pass; no time passes

  private:
    const std::uint32_t kind;
    std::uint32_t data = 0;
    std::uint32_t counter = 0;
    int buffer = 0;
};
