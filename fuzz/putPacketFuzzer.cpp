// What a Java client may hand to putPacket. Input: the packet type, the length as it is claimed
// (four bytes), and the array.
#include <cstring>

#include "Fuzzing.h"
#include "JavaVm.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const QuickCards cards;
    static JavaVm vm;
    jint length = 0;
    if (size < 1 + sizeof length) {
        return 0;
    }
    std::memcpy(&length, bytes + 1, sizeof length);
    JavaVm::Array array({bytes + 1 + sizeof length, bytes + size});
    vm.putPacket(bytes[0], length, &array);

    const std::unique_ptr<Packet> command(dispatcher.getPacketFromReceiveQueue());
    const bool plays = bytes[0] == PACKET_PLAYBACK_DATA;
    const bool fits = length >= 0 && static_cast<std::size_t>(length) <= array.bytes.size();
    require((command != nullptr) == (fits && (plays || bytes[0] == PACKET_LINE_SETTINGS)),
            "what makes sense is queued, else nothing");
    if (command != nullptr) {
        const int most = plays ? 600 : 48, kept = std::min(length, most);
        require(command->getType() == bytes[0] && command->getLength() == (plays ? kept : most) &&
                    std::equal(array.bytes.begin(), array.bytes.begin() + kept, command->getData()),
                "a command has its type, its length and the client's bytes");
        require(pt::length(command->toString()) > 0, "a command has a text");
    }
    return 0;
}
