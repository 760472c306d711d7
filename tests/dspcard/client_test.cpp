// What a client does in the middle of an exchange leaves nothing behind that holds back commands:
// the client here calls at each port access in turn, on the thread that drives the cards.
#include <gtest/gtest.h>

#include "BoardMgr.h"
#include "JavaVm.h"
#include "MonitorBuffer.h"
#include "Surroundings.h"
#include "pc/SimulatedPc.h"

namespace {

using cardsim::SimulatedPc;

void send(PacketType type, std::vector<unsigned char> bytes) {
    dispatcher().addPacketToReceiveQueue(type, static_cast<int>(bytes.size()), bytes.data());
}
void setPlayback(bool on) {
    Java_com_zivolt_hardware_dsp_cppint_CPPBridge_setPlayback(nullptr, nullptr, on);
}
void setMonitoring(int line) {
    Java_com_zivolt_hardware_dsp_cppint_CPPBridge_setMonitoring(nullptr, nullptr, line);
}

// Lets somebody act at a port access, counted from 0 on.
class InterruptedPc : public SimulatedPc {
  public:
    using SimulatedPc::SimulatedPc;

    std::uint32_t in(std::uint16_t port, int bytes) override {
        countDown();
        return SimulatedPc::in(port, bytes);
    }
    void out(std::uint16_t port, int bytes, std::uint32_t value) override {
        countDown();
        SimulatedPc::out(port, bytes, value);
    }

    int accessesUntil = -1;
    std::function<void()> act;

  private:
    void countDown() {
        if (accessesUntil-- == 0) {
            act();
        }
    }
};

class OffInAnExchange : public testing::TestWithParam<std::pair<int, int>> {
  protected:
    OffInAnExchange() {
        std::filesystem::current_path(FIRMWARE_FOLDER);
        EXPECT_TRUE(BoardMgr::getInstance().bootload());
        BoardMgr::getInstance().startRecording();
    }
    // Serves the cards for some seconds; at an access in the third one the client acts, and then
    // sends settings.
    void serve(int access, const std::function<void()>& act, unsigned char delay_s) {
        const std::uint64_t now_ms = pc.now() / 1000;
        pc.act = [act, delay_s] {
            act();
            send(PACKET_LINE_SETTINGS, settingsTable(TS_OFF_HOOK, delay_s));
        };
        pc.at(now_ms + 3000, [this, access] { pc.accessesUntil = access; });
        pc.endAt(now_ms + 7000);
        EXPECT_THROW(BoardMgr::getInstance().readWriteDSPs(), cardsim::PowerOff);
    }
    void expectSettings(int delay_s) {
        EXPECT_TRUE(MonitorBuffer::getInstance().isEmpty());
        for (int line = 0; line < pc.cards().lines(); ++line) {
            ASSERT_EQ(delay_s, pc.cards().line(line).settings().delay_ms / 1000) << line;
        }
    }

    static constexpr int kAccesses = 60;  // more than an exchange of each card takes
    Console console;
    InterruptedPc pc{SimulatedPc::Options::with(GetParam().first, GetParam().second)};
};

TEST_P(OffInAnExchange, HoldsBackNoSettingsWhateverItFallsInto) {
    const std::vector<unsigned char> audio(600, 7);
    for (int access = 0; access < kAccesses; ++access) {
        SCOPED_TRACE(access);
        const auto delay_s = static_cast<unsigned char>(access + 1);
        setPlayback(true);
        pc.at(pc.now() / 1000 + 2900, [&] {
            for (int packet = 0; packet < 9; ++packet) {
                send(PACKET_PLAYBACK_DATA, audio);
            }
        });
        serve(
            access, [] { setPlayback(false); }, delay_s);
        expectSettings(delay_s);
        setMonitoring(pc.cards().lines() - 1);
        serve(
            access, [] { setMonitoring(-1); }, 0);
        expectSettings(0);
        takePackets();
    }
}

INSTANTIATE_TEST_SUITE_P(Cards, OffInAnExchange,
                         testing::Values(std::pair(4, 0), std::pair(8, 0), std::pair(4, 4),
                                         std::pair(4, 8), std::pair(8, 4), std::pair(8, 8)));

}  // namespace
