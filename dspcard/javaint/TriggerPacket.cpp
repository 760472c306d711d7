#include "Packet.h"

TriggerPacket::TriggerPacket(bool startCall, int channel)
    : data{static_cast<unsigned char>(startCall ? 1 : 0), static_cast<unsigned char>(channel)} {}

int TriggerPacket::getLength() const {
    return sizeof(data);
}

unsigned char* TriggerPacket::getData() const {
    return const_cast<unsigned char*>(data);
}

void TriggerPacket::read(unsigned char*, int) {
    pt::fatal(0, "NOT IMPLEMENTED");
}

pt::string TriggerPacket::toString() const {
    return "TriggerPacket:";
}
