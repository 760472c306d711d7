// What a DSP may put into the buffer that it hands over. Input: a byte of choices (kind of card,
// debug trace, line settings, monitored line), a byte for the line status; then the buffer, zero
// where the input ends.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "BoardMgr.h"
#include "DSPBoardEightChannel.h"
#include "DSPBoardFourChannel.h"
#include "FuzzedCards.h"
#include "MonitorBuffer.h"
#include "javaint/MessageDispatcher.h"

namespace {

constexpr std::size_t kHead = 2;
constexpr std::size_t kBoardMemory = 0x2000;

// The memory of one card with forbidden pages around it.
char* guardedMemory() {
    constexpr std::size_t kPage = 0x1000;
    char* const pages = static_cast<char*>(
        mmap(nullptr, kBoardMemory + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(pages + kPage, kBoardMemory, PROT_READ | PROT_WRITE);
    return pages + kPage;
}

FuzzedCards* cards;
char* memory;
std::unique_ptr<DSPBoardFourChannel> four;
std::unique_ptr<DSPBoardEightChannel> eight;

struct Layout {
    std::size_t bytes, firstPort, portBytes, audioBytes;
    int digits;
};
constexpr Layout kFour = {4078, 38, 708, 600, 49};
constexpr Layout kEight = {3554, 62, 388, 300, 29};

void checkPacket(const Packet& packet, const Layout& layout, int ports) {
    const unsigned char* const data = packet.getData();
    switch (packet.getType()) {
        case PACKET_TRIGGER:
            require(data[0] <= 1 && data[1] < ports, "a trigger is of a line of the card");
            break;
        case PACKET_DTMF:
        case PACKET_CLI: {
            const bool digits = packet.getType() == PACKET_DTMF;
            const char* const field = memory + layout.firstPort + data[0] * layout.portBytes + 8 +
                                      layout.audioBytes + (digits ? 0 : layout.digits + 1);
            require(data[0] < ports, "a text is of a line of the card");
            require(data[1] == std::min<int>(field[0], digits ? layout.digits : 49),
                    "a text is as long as its field says, and no longer than its field");
            require(std::memcmp(data + 2, field + 1, data[1]) == 0, "a text is that of its line");
            break;
        }
        case PACKET_RECORDED_DATA:
            require(packet.getLength() == 2402 && data[0] == ports, "audio is of all lines");
            for (int port = 0; port < ports; ++port) {
                const auto number = static_cast<std::size_t>(port);
                require(std::memcmp(data + 2 + number * layout.audioBytes,
                                    memory + layout.firstPort + number * layout.portBytes + 8,
                                    layout.audioBytes) == 0,
                        "audio is delivered as the DSP put it there");
            }
            break;
        default:
            require(packet.getType() == PACKET_ERROR, "cards send events only");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceConsole();
    cards = new FuzzedCards;
    memory = guardedMemory();
    BoardMgr::getInstance().startRecording();  // finds no card
    four = std::make_unique<DSPBoardFourChannel>(0, memory, 0);
    eight = std::make_unique<DSPBoardEightChannel>(0, memory, 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size < kHead) {
        return 0;
    }
    const bool isFour = (bytes[0] & 0x01) != 0;
    const Layout& layout = isFour ? kFour : kEight;
    DSPBoard& board = isFour ? static_cast<DSPBoard&>(*four) : *eight;
    const int ports = board.getNumChannels();
    std::memset(memory, 0, kBoardMemory);
    std::memcpy(memory, bytes + kHead, std::min(size - kHead, layout.bytes));
    const std::vector<char> handedOver(memory, memory + layout.bytes);

    cards->registers[0x2] = 1;
    for (const int line : {0x6, 0x8, 0xA, 0xC}) {
        cards->registers[line] = bytes[1];
    }
    board.enableDebug((bytes[0] & 0x02) != 0);
    board.setMonitoringChannel((bytes[0] & 0x08) != 0 ? bytes[0] >> 4 : -1);
    LineSettingsPacket settings;
    settings.read(const_cast<std::uint8_t*>(bytes),
                  static_cast<int>(std::min<std::size_t>(size, 48)));
    board.doReadWrite(0, (bytes[0] & 0x04) != 0 ? &settings : nullptr);

    require(std::equal(handedOver.begin(), handedOver.end(), memory),
            "the host writes into the other buffer only");
    int audioPackets = 0;
    while (const std::unique_ptr<Packet> packet{
        MessageDispatcher::getInstance().getPacketFromSendQueue()}) {
        checkPacket(*packet, layout, ports);
        audioPackets += packet->getType() == PACKET_RECORDED_DATA ? 1 : 0;
    }
    require(audioPackets == 1, "each exchange sends one audio packet");
    MonitorBuffer::getInstance().clear();
    return 0;
}
