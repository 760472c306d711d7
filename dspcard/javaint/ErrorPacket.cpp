#include "Packet.h"

ErrorPacket::ErrorPacket(int code, const char* message)
    : TextPacket(code, message, pt::length(pt::string(message))) {}

int ErrorPacket::getType() const {
    return PACKET_ERROR;
}

pt::string ErrorPacket::toString() const {
    return "ERROR:" + characters();
}
