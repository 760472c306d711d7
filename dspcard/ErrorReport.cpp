#include "ErrorReport.h"

#include <iostream>

#include "ConsoleLine.h"
#include "javaint/MessageDispatcher.h"

void reportError(int code, const char* description) {
    ConsoleLine(std::cerr) << "ERROR! " << description;
    MessageDispatcher::getInstance().addPacketToSendQueue(new ErrorPacket(code, description));
}
