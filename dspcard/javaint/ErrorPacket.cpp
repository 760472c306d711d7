#include <algorithm>
#include <cstring>

#include "Packet.h"
#include "TextPayload.h"

ErrorPacket::ErrorPacket() : data{} {}

ErrorPacket::ErrorPacket(int code, const char* message) : data{} {
    const std::size_t messageLength = std::strlen(message);
    textPayload::set(
        data, code, message,
        static_cast<int>(std::min<std::size_t>(messageLength, textPayload::kMaxCharacters)));
}

int ErrorPacket::getType() const {
    return PACKET_ERROR;
}

int ErrorPacket::getLength() const {
    return textPayload::length(data);
}

unsigned char* ErrorPacket::getData() const {
    return const_cast<unsigned char*>(data);
}

void ErrorPacket::read(unsigned char* theData, int length) {
    textPayload::read(data, sizeof(data), theData, length);
}

pt::string ErrorPacket::toString() const {
    return "ERROR:" + textPayload::characters(data);
}

int ErrorPacket::getCode() const {
    return data[0];
}
