// What a client does in the middle of an exchange leaves nothing behind that holds back commands:
// the client here calls at each port access in turn, on the thread that drives the cards.
#include <gtest/gtest.h>

#include "BoardMgr.h"
#include "JavaVm.h"
#include "MonitorBuffer.h"
#include "ScriptedCards.h"
#include "Surroundings.h"
#include "pc/SimulatedPc.h"

namespace {

using cardsim::SimulatedPc;

// Lets the client act at a port access, counted from 0 on.
class InterruptedPc : public SimulatedPc {
  public:
    using SimulatedPc::SimulatedPc;
    std::uint32_t in(std::uint16_t port, int bytes) override {
        accessesLeft-- == 0 ? act() : void();
        return SimulatedPc::in(port, bytes);
    }
    void out(std::uint16_t port, int bytes, std::uint32_t value) override {
        accessesLeft-- == 0 ? act() : void();
        SimulatedPc::out(port, bytes, value);
    }
    int accessesLeft = -1;
    std::function<void()> act;
};

std::function<void()> whileRemoving = [] {};

class OffInAnExchange : public testing::TestWithParam<std::pair<int, int>> {
  protected:
    OffInAnExchange() {
        std::filesystem::current_path(FIRMWARE_FOLDER);
        EXPECT_TRUE(BoardMgr::getInstance().bootload());
        vm.setRecording(true);
    }
    // Serves the cards for some seconds. At an access in the third one something is switched off
    // and settings are sent: in the end every line has them.
    void serve(int access, const std::function<void()>& switchOff, unsigned char delay_s) {
        const std::uint64_t now_ms = pc.now() / 1000;
        pc.act = [&] {
            switchOff();
            vm.send(PACKET_LINE_SETTINGS, settingsTable(TS_OFF_HOOK, delay_s));
        };
        pc.at(now_ms + 3000, [this, access] { pc.accessesLeft = access; });
        pc.endAt(now_ms + 7000);
        EXPECT_THROW(BoardMgr::getInstance().readWriteDSPs(), cardsim::PowerOff);
        EXPECT_TRUE(MonitorBuffer::getInstance().isEmpty());
        for (int line = 0; line < pc.cards().lines(); ++line) {
            ASSERT_EQ(delay_s, pc.cards().line(line).settings().delay_ms / 1000) << line;
        }
        takePackets();
    }

    static constexpr int kAccesses = 60;  // more than an exchange of each card takes
    Console console;
    JavaVm vm;
    InterruptedPc pc{SimulatedPc::Options::with(GetParam().first, GetParam().second)};
};

TEST(PlaybackOff, LeavesNothingOfAPacketThatAnExchangeTookMeanwhile) {
    Console console;
    ScriptedCards cards;
    JavaVm vm;
    whileRemoving = [] { MonitorBuffer::getInstance().addData("taken", 5); };
    vm.setPlayback(false);
    EXPECT_TRUE(MonitorBuffer::getInstance().isEmpty());
}

TEST_P(OffInAnExchange, HoldsBackNoSettingsWhateverItFallsInto) {
    for (int access = 0; access < kAccesses; ++access) {
        SCOPED_TRACE(access);
        vm.setPlayback(true);
        pc.at(pc.now() / 1000 + 2900, [this] {
            for (int packet = 0; packet < 9; ++packet) {
                vm.send(PACKET_PLAYBACK_DATA, std::vector<unsigned char>(600, 7));
            }
        });
        serve(
            access, [this] { vm.setPlayback(false); }, static_cast<unsigned char>(access + 1));
        vm.setMonitoring(pc.cards().lines() - 1);
        serve(
            access, [this] { vm.setMonitoring(-1); }, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Cards, OffInAnExchange,
                         testing::Values(std::pair(4, 0), std::pair(8, 0), std::pair(4, 4),
                                         std::pair(4, 8), std::pair(8, 4), std::pair(8, 8)));

}  // namespace

// In place of the dispatcher's own: an exchange falls into it.
extern "C" void __real__ZN17MessageDispatcher29removePacketsFromReceiveQueueEi(MessageDispatcher*,
                                                                               int);
extern "C" void __wrap__ZN17MessageDispatcher29removePacketsFromReceiveQueueEi(
    MessageDispatcher* dispatcher, int type) {
    whileRemoving();
    __real__ZN17MessageDispatcher29removePacketsFromReceiveQueueEi(dispatcher, type);
}
