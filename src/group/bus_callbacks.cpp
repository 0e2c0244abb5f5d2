// What the bus library reports to the group, on threads of its own, and the removal of the devices
// of which it reports nothing.

#include "core/bus_session.h"
#include "core/console.h"
#include "group/list_lock.h"
#include "group/orvin_group.h"

namespace {

constexpr std::int32_t kPacketReceived = 0;
constexpr std::int32_t kGoBack = 17;
constexpr std::uint32_t kMemberJoined = 0;

// A device that never lets the others pass a packet would hold them up for ever. One that recovers
// needs a handful of requests at most.
constexpr int kMaxGoBackRequests = 1'000;

std::string_view bytesOf(const vanid_t& id) {
    return {reinterpret_cast<const char*>(&id), sizeof id};
}

// Selects the results of image packets; the meaning of the numbers is the library's.
int setTransferCallback(const BusSession& session, const CallbackSlot& slot) {
    return TalmApiSetCallback(session.handle, 2, 255, 2, &slot, 0);
}

void transferCallback(std::int32_t result, void* userArgument, vanid_t source, vanid_t /*other*/,
                      std::uint32_t packetNumber, std::uint32_t /*lastWord*/) {
    static_cast<OrvinGroup*>(userArgument)->onTransferResult(result, source, packetNumber);
}

void busChangeCallback(void* userArgument, const vanid_t* member, std::uint32_t event) {
    if (event != kMemberJoined) {
        return;
    }
    static_cast<OrvinGroup*>(userArgument)->markRejoined(*member);
}

}  // namespace

void OrvinGroup::registerTransferCallback() {
    const TransferCallback callback = transferCallback;
    setTransferCallback(*session, {reinterpret_cast<void (*)()>(callback), this});
}

void OrvinGroup::clearTransferCallback() {
    setTransferCallback(*session, {nullptr, nullptr});
}

void OrvinGroup::registerBusChangeCallback() {
    const BusChangeCallback callback = busChangeCallback;
    const CallbackSlot slot{reinterpret_cast<void (*)()>(callback), this};
    TalmApiSetBusChangeCallback(session->handle, &slot, 0);
}

void OrvinGroup::clearBusChangeCallback() {
    const CallbackSlot slot{nullptr, nullptr};
    TalmApiSetBusChangeCallback(session->handle, &slot, 0);
}

void OrvinGroup::onTransferResult(std::int32_t result, const vanid_t& source,
                                  std::uint32_t packet) {
    ListLock lock(*this);
    if (result == kPacketReceived && acknowledge(source)) {
        return;
    }
    // Another result, or a device that `reporters` does not know: it is empty just after a removal,
    // and the device may be none of ours. To the end of the list: one may have been added twice.
    for (auto member = orvins.begin(); member != orvins.end();) {
        const bool reports = vanid_equal(&(*member)->vanid, &source) != 0;
        member = reports ? applyTransferResult(member, result, packet) : std::next(member);
    }
}

// Comparing every acknowledgement with every device would be 3969 calls into the library for a
// packet to 63 devices. For the main thread: callbacks are not to allocate.
void OrvinGroup::fillReporters() {
    for (const auto& source : orvins) {
        if (reporters.count(bytesOf(source->vanid)) != 0) {
            continue;  // added twice
        }
        for (const auto& member : orvins) {
            if (vanid_equal(&member->vanid, &source->vanid) != 0) {
                reporters.emplace(bytesOf(source->vanid), member.get());
            }
        }
    }
}

// False when nobody is known by the bytes of this identifier.
bool OrvinGroup::acknowledge(const vanid_t& source) {
    const auto members = reporters.equal_range(bytesOf(source));
    for (auto member = members.first; member != members.second; ++member) {
        member->second->acknowledged = true;
    }
    return members.first != members.second;
}

// Returns the member's successor. Which packet an acknowledgement is for is not looked at: a late
// one counts for the packet in flight. A device that missed a packet that way fails its check.
OrvinGroup::OrvinList::iterator OrvinGroup::applyTransferResult(OrvinList::iterator member,
                                                                std::int32_t result,
                                                                std::uint32_t packet) {
    Orvin& orvin = **member;
    if (result == kPacketReceived) {
        orvin.acknowledged = true;
        return std::next(member);
    }
    if (result == kGoBack) {
        if (packetNumber > packet) {
            printLine("Go back in fw: cur: %d new: %d", static_cast<int>(packetNumber),
                      static_cast<int>(packet));
            packetNumber = packet;
            if (++orvin.goBackRequests >= kMaxGoBackRequests) {
                return removeForGoingBack(member);
            }
        }
        orvin.acknowledged = true;
        return std::next(member);
    }
    setRestartPendingLocked(orvin.vanidText, false);
    printLine("\nRemoving Orvin %s due to faulty callback (%d / 0x%x)", orvin.vanidText.c_str(),
              result, static_cast<unsigned>(result));
    return eraseMember(member);
}

OrvinGroup::OrvinList::iterator OrvinGroup::removeForGoingBack(OrvinList::iterator member) {
    const Orvin& orvin = **member;
    setRestartPendingLocked(orvin.vanidText, false);
    printLine("\nRemoving Orvin %s due to endless go back (%d requests)", orvin.vanidText.c_str(),
              orvin.goBackRequests);
    return eraseMember(member);
}

void OrvinGroup::removeUnacknowledged() {
    ListLock lock(*this);
    for (auto member = orvins.begin(); member != orvins.end();) {
        if ((*member)->acknowledged) {
            ++member;
            continue;
        }
        setRestartPendingLocked((*member)->vanidText, false);
        printLine("\nRemoving Orvin %s due to timeout", (*member)->vanidText.c_str());
        member = eraseMember(member);
    }
}
