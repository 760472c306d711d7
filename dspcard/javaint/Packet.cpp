#include "Packet.h"

namespace {

constexpr pt::large kUnixEpoch = 62'135'596'800'000;  // 1970-01-01 as a pt::datetime

}  // namespace

Packet::Packet() : timestamp(pt::now(true) - kUnixEpoch) {}

pt::string Packet::toString() const {
    return "not implemented";
}
