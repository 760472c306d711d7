// What a DSP may put into the buffer that it hands over. Input: a byte of choices (kind of card,
// debug trace, line settings, monitored line), a byte for the line status; then the buffer, zero
// where the input ends.
#include <algorithm>
#include <cstring>
#include <memory>

#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "Fuzzing.h"
#include "MonitorBuffer.h"
#include "javaint/MessageDispatcher.h"
#include "model/TransferLayout.h"

namespace {

constexpr std::size_t kBoardMemory = 2 * cardsim::layout::kCardWords;

// The memory of one card with forbidden pages around it.
char* guardedMemory() {
    constexpr std::size_t kPage = 0x1000;
    char* const pages = static_cast<char*>(
        mmap(nullptr, kBoardMemory + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(pages + kPage, kBoardMemory, PROT_READ | PROT_WRITE);
    return pages + kPage;
}

void checkPacket(const Packet& packet, int lines, const char* memory) {
    const cardsim::TransferLayout& layout = cardsim::layoutOf(lines);
    const unsigned char* const data = packet.getData();
    const auto field = [&](int port, int word) {
        return memory + 2 * (layout.firstPort + port * layout.portWords + word);
    };
    const bool digits = packet.getType() == PACKET_DTMF;
    if (packet.getType() == PACKET_TRIGGER) {
        require(data[0] <= 1 && data[1] < lines, "a trigger is of a line of the card");
    } else if (digits || packet.getType() == PACKET_CLI) {
        require(data[0] < lines, "a text is of a line of the card");
        const char* const text = field(data[0], digits ? layout.digits : layout.caller);
        const int most = (digits ? layout.digitsBytes : cardsim::layout::kCallerBytes) - 1;
        require(data[1] == std::min<int>(text[0], most),
                "a text is as long as its field says, and no longer than its field");
        require(std::memcmp(data + 2, text + 1, data[1]) == 0, "a text is that of its line");
    } else if (packet.getType() == PACKET_RECORDED_DATA) {
        const auto bytes = static_cast<std::size_t>(2 * layout.audioWords);
        require(packet.getLength() == 2402 && data[0] == lines, "audio is of all lines");
        for (int port = 0; port < lines; ++port) {
            const unsigned char* const audio = data + 2 + bytes * static_cast<unsigned>(port);
            require(std::memcmp(audio, field(port, layout.audio), bytes) == 0,
                    "audio is delivered as the DSP put it there");
        }
    } else {
        require(packet.getType() == PACKET_ERROR, "cards send events only");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static QuickCards cards;
    static char* const memory = guardedMemory();
    static DSPBoardFourChannel four(0, memory, 0);
    static DSPBoardEightChannel eight(0, memory, 0);
    if (size < 2) {
        return 0;
    }
    DSPBoard::setRecording(true);
    const bool isFour = (bytes[0] & 0x01) != 0;
    DSPBoard& board = isFour ? static_cast<DSPBoard&>(four) : eight;
    const int lines = board.getNumChannels();
    const auto length = static_cast<std::size_t>(2 * cardsim::layoutOf(lines).words);
    std::memset(memory, 0, kBoardMemory);
    std::memcpy(memory, bytes + 2, std::min(size - 2, length));
    const std::string handedOver(memory, length);

    cards.registers[0x302] = 1;
    for (const int line : {0x306, 0x308, 0x30A, 0x30C}) {
        cards.registers[line] = bytes[1];
    }
    board.enableDebug((bytes[0] & 0x02) != 0);
    board.setMonitoringChannel((bytes[0] & 0x08) != 0 ? bytes[0] >> 4 : -1);
    LineSettingsPacket settings;
    settings.read(const_cast<std::uint8_t*>(bytes), static_cast<int>(std::min<size_t>(size, 48)));
    board.doReadWrite(0, (bytes[0] & 0x04) != 0 ? &settings : nullptr);

    require(handedOver == std::string(memory, length),
            "the host writes into the other buffer only");
    int audioPackets = 0;
    while (const std::unique_ptr<Packet> packet{
        MessageDispatcher::getInstance().getPacketFromSendQueue()}) {
        checkPacket(*packet, lines, memory);
        audioPackets += packet->getType() == PACKET_RECORDED_DATA ? 1 : 0;
    }
    require(audioPackets == 1, "each exchange sends one audio packet");
    MonitorBuffer::getInstance().clear();
    return 0;
}
