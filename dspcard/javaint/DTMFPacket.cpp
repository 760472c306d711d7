#include "Packet.h"

DTMFPacket::DTMFPacket(const char* dtmfDigits, int noOfDTMF, int aChannel)
    : TextPacket(aChannel, dtmfDigits, noOfDTMF) {}

int DTMFPacket::getType() const {
    return PACKET_DTMF;
}

pt::string DTMFPacket::toString() const {
    return "DTMF:" + characters();
}
