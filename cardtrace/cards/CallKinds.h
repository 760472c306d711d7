// What a program asks for ports and devices, as kinds of records.
#pragma once

#include "format/Record.h"
#include "traps/Hardware.h"

namespace cardtrace {

constexpr Kind kindOf(cardsim::DeviceCall::Kind kind) {
    switch (kind) {
        case cardsim::DeviceCall::Kind::kPermission:
            return Kind::kPermission;
        case cardsim::DeviceCall::Kind::kOpenPorts:
            return Kind::kOpenPorts;
        case cardsim::DeviceCall::Kind::kOpenMemory:
            return Kind::kOpenMemory;
        case cardsim::DeviceCall::Kind::kMap:
            return Kind::kMap;
        case cardsim::DeviceCall::Kind::kLock:
            break;
    }
    return Kind::kLock;
}

}  // namespace cardtrace
