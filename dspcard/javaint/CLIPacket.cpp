#include "Packet.h"

CLIPacket::CLIPacket(const char* dtmfDigits, int noOfDTMF, int aChannel)
    : TextPacket(aChannel, dtmfDigits, noOfDTMF) {}

int CLIPacket::getType() const {
    return PACKET_CLI;
}

pt::string CLIPacket::toString() const {
    return "CLI:" + characters();
}
