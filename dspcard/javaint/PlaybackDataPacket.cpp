#include <algorithm>

#include "Packet.h"

int PlaybackDataPacket::getLength() const {
    return length;
}

unsigned char* PlaybackDataPacket::getData() const {
    return const_cast<unsigned char*>(playbackData);
}

void PlaybackDataPacket::read(unsigned char* data, int len) {
    length = std::clamp(len, 0, static_cast<int>(sizeof(playbackData)));
    std::copy_n(data, length, playbackData);
}

pt::string PlaybackDataPacket::toString() const {
    return "PlaybackDataPacket";
}
