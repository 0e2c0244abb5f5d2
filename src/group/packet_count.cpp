// The number of the packet in flight, between the packet loop, which counts it up, and the devices,
// whose requests to go back lower it.

#include "group/list_lock.h"
#include "group/orvin_group.h"

void OrvinGroup::startPackets() {
    ListLock lock(*this);
    packetNumber = 0;
    packetsAcknowledged = 0;
    for (const auto& orvin : orvins) {
        orvin->goBackRequests = 0;
    }
}

std::uint32_t OrvinGroup::nextPacket() {
    ListLock lock(*this);
    return packetNumber;
}

// A request to go back that comes after this one is found once the packet was acknowledged, and is
// an acknowledgement itself.
bool OrvinGroup::takePacket(std::uint32_t packet) {
    ListLock lock(*this);
    if (packetNumber != packet) {
        return false;
    }
    orvins.prepareLookUp();
    orvins.clearAcknowledged();
    ++packetNumber;
    return true;
}

// Requests to go back count only while the transfer makes no progress.
void OrvinGroup::noteAcknowledged() {
    ListLock lock(*this);
    if (packetNumber <= packetsAcknowledged) {
        return;
    }
    packetsAcknowledged = packetNumber;
    for (const auto& orvin : orvins) {
        orvin->goBackRequests = 0;
    }
}
