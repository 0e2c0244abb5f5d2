// The number of the packet in flight, between the packet loop, which counts it up, and the devices,
// whose requests to go back lower it.

#include "group/orvin_group.h"

void OrvinGroup::startPackets() {
    ListLock lock(listMutex);
    packetNumber = 0;
    packetsAcknowledged = 0;
    for (const auto& orvin : orvins) {
        orvin->goBackRequests = 0;
    }
}

std::uint32_t OrvinGroup::nextPacket() {
    ListLock lock(listMutex);
    return packetNumber;
}

// A request to go back that comes once the number is taken counts as an acknowledgement of the
// packet, and the loop follows it with the next one.
bool OrvinGroup::takePacket(std::uint32_t packet) {
    ListLock lock(listMutex);
    if (packetNumber != packet) {
        return false;
    }
    orvins.prepareLookUp();
    orvins.clearAcknowledged();
    ++packetNumber;
    return true;
}

// Requests to go back count only while the transfer makes no progress.
void OrvinGroup::markPacketAcknowledged() {
    ListLock lock(listMutex);
    if (packetNumber <= packetsAcknowledged) {
        return;
    }
    packetsAcknowledged = packetNumber;
    for (const auto& orvin : orvins) {
        orvin->goBackRequests = 0;
    }
}
