// The payload that caller identification, DTMF and error packets share: a leading byte (channel
// or error code), a count n, n characters. Works on the packet's own array.
#pragma once

#include <ptypes.h>

namespace textPayload {

constexpr int kHeaderLength = 2;
constexpr int kMaxCharacters = 50;

// Stores the leading byte and the first count characters of text, at most kMaxCharacters.
void set(unsigned char* payload, int leadingByte, const char* text, int count);

// Takes over a payload of length bytes, cut to capacity; fewer than 2 bytes give an empty one.
// The stored count never reaches beyond capacity.
void read(unsigned char* payload, int capacity, const unsigned char* source, int length);

int length(const unsigned char* payload);
pt::string characters(const unsigned char* payload);

}  // namespace textPayload
