#include "Packet.h"
#include "TextPayload.h"

DTMFPacket::DTMFPacket() : data{} {}

DTMFPacket::DTMFPacket(const char* dtmfDigits, int noOfDTMF, int aChannel) : data{} {
    textPayload::set(data, aChannel, dtmfDigits, noOfDTMF);
}

int DTMFPacket::getType() const {
    return PACKET_DTMF;
}

int DTMFPacket::getLength() const {
    return textPayload::length(data);
}

unsigned char* DTMFPacket::getData() const {
    return const_cast<unsigned char*>(data);
}

void DTMFPacket::read(unsigned char* theData, int length) {
    textPayload::read(data, sizeof(data), theData, length);
}

pt::string DTMFPacket::toString() const {
    return "DTMF:" + textPayload::characters(data);
}

int DTMFPacket::getChannel() const {
    return data[0];
}
