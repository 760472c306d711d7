// What a DSP may put into the buffer that it hands over. Input: a byte of choices (kind of card,
// debug trace, line settings, monitored line), a byte for the line status; then the buffer, zero
// where the input ends. What the driver makes of each byte the random schedules judge.
#include <vector>

#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "Fuzzing.h"
#include "MonitorBuffer.h"
#include "model/TransferLayout.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static QuickCards cards;
    static std::vector<char> memory(2 * cardsim::layout::kCardWords);
    static DSPBoardFourChannel four(0, memory.data(), 0);
    static DSPBoardEightChannel eight(0, memory.data(), 0);
    if (size < 2) {
        return 0;
    }
    DSPBoard& board = (bytes[0] & 0x01) != 0 ? static_cast<DSPBoard&>(four) : eight;
    const auto length =
        static_cast<std::size_t>(2 * cardsim::layoutOf(board.getNumChannels()).words);
    std::string handedOver(bytes + 2, bytes + std::min(size, 2 + length));
    handedOver.resize(length);
    std::copy(handedOver.begin(), handedOver.end(), memory.begin());

    cards.registers[0x302] = 1;
    for (const int line : {0x306, 0x308, 0x30A, 0x30C}) {
        cards.registers[line] = bytes[1];
    }
    DSPBoard::setRecording(true);
    board.enableDebug((bytes[0] & 0x02) != 0);
    board.setMonitoringChannel((bytes[0] & 0x08) != 0 ? bytes[0] >> 4 : -1);
    LineSettingsPacket settings;
    settings.read(const_cast<std::uint8_t*>(bytes), static_cast<int>(std::min<size_t>(size, 48)));
    board.doReadWrite(0, (bytes[0] & 0x04) != 0 ? &settings : nullptr);

    require(std::equal(handedOver.begin(), handedOver.end(), memory.begin()),
            "the host writes into the other buffer only");
    int audioPackets = 0;
    while (const std::unique_ptr<Packet> packet{dispatcher.getPacketFromSendQueue()}) {
        audioPackets += packet->getType() == PACKET_RECORDED_DATA ? 1 : 0;
    }
    require(audioPackets == 1, "each exchange sends one audio packet");
    MonitorBuffer::getInstance().clear();
    return 0;
}
