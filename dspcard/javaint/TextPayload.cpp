#include "TextPayload.h"

#include <algorithm>
#include <cstring>

namespace textPayload {

void set(unsigned char* payload, int leadingByte, const char* text, int count) {
    const int kept = std::clamp(count, 0, kMaxCharacters);
    payload[0] = static_cast<unsigned char>(leadingByte);
    payload[1] = static_cast<unsigned char>(kept);
    std::copy_n(text, kept, payload + kHeaderLength);
}

void read(unsigned char* payload, int capacity, const unsigned char* source, int length) {
    if (length < kHeaderLength) {
        set(payload, 0, "", 0);
        return;
    }
    std::copy_n(source, std::min(length, capacity), payload);
    payload[1] = static_cast<unsigned char>(std::min<int>(payload[1], capacity - kHeaderLength));
}

int length(const unsigned char* payload) {
    return payload[1] + kHeaderLength;
}

pt::string characters(const unsigned char* payload) {
    return pt::string(reinterpret_cast<const char*>(payload + kHeaderLength), payload[1]);
}

}  // namespace textPayload
