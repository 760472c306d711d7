#include "Packet.h"

ErrorPacket::ErrorPacket(int code, const char* message)
    : TextPacket(code, message, pt::length(pt::string(message))) {}

pt::string ErrorPacket::toString() const {
    return "ERROR:" + characters();
}
