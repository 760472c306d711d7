#include <cstring>
#include <iostream>

#include "../ConsoleLine.h"
#include "Packet.h"

namespace {

constexpr int kHeaderLength = 2;
constexpr int kHighestChannel = 15;

}  // namespace

RecordedDataPacket::RecordedDataPacket(bool fourChannel, int firstChannel)
    : numberOfChannels(fourChannel ? 4 : 8),
      dataLengthPerChannel(fourChannel ? 600 : 300),
      channelData(std::make_unique<unsigned char[]>(static_cast<std::size_t>(getLength()))) {
    channelData[0] = static_cast<unsigned char>(numberOfChannels);
    channelData[1] = static_cast<unsigned char>(firstChannel);
}

void RecordedDataPacket::addAudioData(int channel, unsigned char* data) {
    if (channel < 0 || channel > kHighestChannel) {
        pt::fatal(-1, "RecordedDataPacket::addAudioData channel out of range");
    }
    if (channel >= numberOfChannels) {
        ConsoleLine(std::cerr) << "RecordedDataPacket: no channel " << channel << " on a board of "
                               << numberOfChannels;
        return;
    }
    if (data != nullptr) {
        std::memcpy(
            &channelData[static_cast<std::size_t>(kHeaderLength + channel * dataLengthPerChannel)],
            data, static_cast<std::size_t>(dataLengthPerChannel));
    }
}

int RecordedDataPacket::getLength() const {
    return numberOfChannels * dataLengthPerChannel + kHeaderLength;
}

unsigned char* RecordedDataPacket::getData() const {
    return channelData.get();
}

void RecordedDataPacket::read(unsigned char*, int) {
    pt::fatal(-1, "Not Implemented");
}

pt::string RecordedDataPacket::toString() const {
    return "RecordedDataPacket:";
}
