// A host that leaves nothing to chance: applies line settings, then plays audio, records, and when
// it is told to end (SIGTERM) prints every packet that the driver has sent.
//   trace_host BEEP SAMPLE      of line 0, and of all audio that is played
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <thread>

#include "BoardMgr.h"
#include "javaint/MessageDispatcher.h"

namespace {

MessageDispatcher& dispatcher = MessageDispatcher::getInstance();

void printPackets(const sigset_t& signals) {
    sigwaitinfo(&signals, nullptr);
    while (const std::unique_ptr<Packet> packet{dispatcher.getPacketFromSendQueue()}) {
        const unsigned char* const data = packet->getData();
        const unsigned sum =
            std::accumulate(data, data + packet->getLength(), 1u,
                            [](unsigned hash, unsigned char byte) { return hash * 31 + byte; });
        std::printf("packet %d %d %lld %u\n", packet->getType(), packet->getLength(),
                    static_cast<long long>(packet->getTimeStamp()), sum);
    }
    std::exit(0);
}

}  // namespace

int main(int, char** argv) {
    // The cards are served until the process's last moment, which takes a while.
    std::atexit([] { usleep(50'000); });
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals] { printPackets(signals); }).detach();

    // Lines are triggered in every way: never, by the hook, and by voice, for two seconds.
    unsigned char settings[48] = {};
    for (int line = 0; line < 16; ++line) {
        settings[3 * line + 1] = static_cast<unsigned char>(line % 4);
        settings[3 * line + 2] = 2;
    }
    settings[0] = static_cast<unsigned char>(std::atoi(argv[1]));
    dispatcher.addPacketToReceiveQueue(PACKET_LINE_SETTINGS, sizeof(settings), settings);
    for (int i = 0; i < 12; ++i) {
        unsigned char audio[600];
        std::iota(std::begin(audio), std::end(audio),
                  static_cast<unsigned char>(std::atoi(argv[2]) + i));
        dispatcher.addPacketToReceiveQueue(PACKET_PLAYBACK_DATA, sizeof(audio), audio);
    }
    BoardMgr& cards = BoardMgr::getInstance();
    cards.bootload();
    cards.setEnablePlayback(true);
    cards.startRecording();
    cards.readWriteDSPs();
}
