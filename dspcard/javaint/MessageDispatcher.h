// The meeting place of the runner thread, which drives the cards, and the client's threads: two
// first-in-first-out queues of packets, each under its own mutex. No operation holds both.
//
// Send queue: event packets from the boards to the client. Receive queue: command packets from the
// client to the boards. A queue holds a packet but does not own it: whoever takes it deletes it.
// Neither queue has a limit; taking costs the same however many packets wait. Every operation may
// be called from any thread.
#pragma once

#include <pasync.h>
#include <ptypes.h>

#include "Packet.h"

class MessageDispatcher {
  public:
    // The single instance; made once, whichever thread asks first, and never destroyed.
    static MessageDispatcher& getInstance();

    // Leaves packets that are still queued alone.
    ~MessageDispatcher() = default;
    MessageDispatcher(const MessageDispatcher&) = delete;
    MessageDispatcher& operator=(const MessageDispatcher&) = delete;

    // The oldest event packet, which the caller then owns, or null if there is none.
    Packet* getPacketFromSendQueue();
    void addPacketToSendQueue(Packet* p);
    // Gives back a packet that was taken but could not be delivered: it is the oldest again.
    void returnPacketToSendQueue(Packet* p);

    // The oldest command packet, which the caller then owns, or null if there is none.
    Packet* getPacketFromReceiveQueue();
    void addPacketToReceiveQueue(Packet* p);
    // Makes a command packet of type 5 or 6 from pktLength bytes at data, which are read during
    // the call only, and queues it. Any other type is refused with a line on standard error.
    void addPacketToReceiveQueue(unsigned char pktType, int pktLength, unsigned char* data);
    // Whether packets of that type go to the cards.
    static bool isCommand(unsigned char pktType);
    // Removes and deletes every waiting command packet of that type; the others keep their order.
    void removePacketsFromReceiveQueue(int type);

  private:
    MessageDispatcher() = default;

    static MessageDispatcher* sInstance;

    pt::objlist receiveQueue{false};
    pt::objlist sendQueue{false};
    pt::mutex receiveQueueMutex;
    pt::mutex sendQueueMutex;
};
