#include "Packet.h"

template <>
pt::string LineTextPacket<PACKET_CLI>::toString() const {
    return "CLI:" + characters();
}
