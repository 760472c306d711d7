#include "MessageDispatcher.h"

#include <iostream>
#include <memory>

#include "../ConsoleLine.h"
#include "../MadeOnce.h"

namespace {

Packet* takeOldest(pt::objlist& queue, pt::mutex& mutex) {
    const pt::scopelock lock(mutex);
    if (pt::length(queue) == 0) {
        return nullptr;
    }
    auto* const oldest = static_cast<Packet*>(pt::get(queue, 0));
    pt::del(queue, 0);
    return oldest;
}

void append(pt::objlist& queue, pt::mutex& mutex, Packet* p) {
    const pt::scopelock lock(mutex);
    pt::add(queue, p);
}

// Null for a type that is no command.
std::unique_ptr<Packet> makeCommandPacket(unsigned char pktType) {
    switch (pktType) {
        case PACKET_PLAYBACK_DATA:
            return std::make_unique<PlaybackDataPacket>();
        case PACKET_LINE_SETTINGS:
            return std::make_unique<LineSettingsPacket>();
        default:
            return nullptr;
    }
}

}  // namespace

MessageDispatcher* MessageDispatcher::sInstance = nullptr;

MessageDispatcher& MessageDispatcher::getInstance() {
    return madeOnce(sInstance, [] { return new MessageDispatcher; });
}

Packet* MessageDispatcher::getPacketFromSendQueue() {
    return takeOldest(sendQueue, sendQueueMutex);
}

void MessageDispatcher::addPacketToSendQueue(Packet* p) {
    append(sendQueue, sendQueueMutex, p);
}

void MessageDispatcher::returnPacketToSendQueue(Packet* p) {
    const pt::scopelock lock(sendQueueMutex);
    pt::ins(sendQueue, 0, p);
}

Packet* MessageDispatcher::getPacketFromReceiveQueue() {
    return takeOldest(receiveQueue, receiveQueueMutex);
}

void MessageDispatcher::addPacketToReceiveQueue(Packet* p) {
    append(receiveQueue, receiveQueueMutex, p);
}

void MessageDispatcher::addPacketToReceiveQueue(unsigned char pktType, int pktLength,
                                                unsigned char* data) {
    std::unique_ptr<Packet> packet = makeCommandPacket(pktType);
    if (packet == nullptr) {
        ConsoleLine(std::cerr) << "Unexpected packet type " << static_cast<unsigned>(pktType);
        return;
    }
    packet->read(data, pktLength);
    ConsoleLine(std::cout) << "PacketReceived " << packet->toString();
    addPacketToReceiveQueue(packet.release());
}

bool MessageDispatcher::isCommand(unsigned char pktType) {
    return pktType == PACKET_PLAYBACK_DATA || pktType == PACKET_LINE_SETTINGS;
}

void MessageDispatcher::removePacketsFromReceiveQueue(int type) {
    const pt::scopelock lock(receiveQueueMutex);
    for (int i = pt::length(receiveQueue) - 1; i >= 0; --i) {
        const auto* const packet = static_cast<Packet*>(pt::get(receiveQueue, i));
        if (packet->getType() == type) {
            delete packet;
            pt::del(receiveQueue, i);
        }
    }
}
