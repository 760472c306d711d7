#include "ptypes.h"

namespace pt {

string::string(const char* text) : bytes(text == nullptr ? "" : text) {}

string::string(const char* text, int length) {
    if (length > 0) {
        bytes.assign(text, static_cast<std::size_t>(length));
    }
}

string::string(char character) : bytes(1, character) {}

string& string::operator+=(const string& other) {
    bytes += other.bytes;
    return *this;
}

string& string::operator+=(const char* other) {
    return *this += string(other);
}

string& string::operator+=(char character) {
    bytes += character;
    return *this;
}

string::operator const unsigned char*() const {
    return reinterpret_cast<const unsigned char*>(bytes.c_str());
}

int length(const string& text) {
    return static_cast<int>(text.bytes.size());
}

string operator+(string left, const string& right) {
    return left += right;
}
string operator+(string left, const char* right) {
    return left += right;
}
string operator+(string left, char right) {
    return left += right;
}
string operator+(const char* left, const string& right) {
    return string(left) += right;
}
string operator+(char left, const string& right) {
    return string(left) += right;
}

bool operator==(const string& left, const string& right) {
    return left.bytes == right.bytes;
}
bool operator==(const string& left, const char* right) {
    return left == string(right);
}
bool operator==(const char* left, const string& right) {
    return string(left) == right;
}
bool operator==(const string& left, char right) {
    return left == string(right);
}
bool operator==(char left, const string& right) {
    return string(left) == right;
}
bool operator!=(const string& left, const string& right) {
    return !(left == right);
}
bool operator!=(const string& left, const char* right) {
    return !(left == right);
}
bool operator!=(const char* left, const string& right) {
    return !(left == right);
}
bool operator!=(const string& left, char right) {
    return !(left == right);
}
bool operator!=(char left, const string& right) {
    return !(left == right);
}

}  // namespace pt
