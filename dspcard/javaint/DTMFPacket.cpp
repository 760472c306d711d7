#include "Packet.h"

template <>
pt::string LineTextPacket<PACKET_DTMF>::toString() const {
    return "DTMF:" + characters();
}
