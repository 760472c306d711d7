#include "Packet.h"
#include "TextPayload.h"

namespace {

unsigned char* bytes(const char* data) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(data));
}

}  // namespace

CLIPacket::CLIPacket() : data{} {}

CLIPacket::CLIPacket(const char* dtmfDigits, int noOfDTMF, int aChannel) : data{} {
    textPayload::set(bytes(data), aChannel, dtmfDigits, noOfDTMF);
}

int CLIPacket::getType() const {
    return PACKET_CLI;
}

int CLIPacket::getLength() const {
    return textPayload::length(bytes(data));
}

unsigned char* CLIPacket::getData() const {
    return bytes(data);
}

void CLIPacket::read(unsigned char* theData, int length) {
    textPayload::read(bytes(data), sizeof(data), theData, length);
}

pt::string CLIPacket::toString() const {
    return "CLI:" + textPayload::characters(bytes(data));
}

int CLIPacket::getChannel() const {
    return bytes(data)[0];
}
