// What the bus library reports to the group, on threads of its own, and the removal of devices that
// it does not hear from.

#include "common/transfer_result.h"
#include "core/bus_session.h"
#include "core/console.h"
#include "core/sleep.h"
#include "group/orvin_group.h"

namespace {

constexpr std::uint32_t kMemberJoined = 0;

// A device that never lets the others pass a packet would hold them up for ever. One that recovers
// needs a handful of requests at most.
constexpr int kMaxGoBackRequests = 1'000;

constexpr std::chrono::milliseconds kBetweenPolls{1};

// Selects the results of image packets; the meaning of the numbers is the library's.
int setTransferCallback(const BusSession& session, const CallbackSlot& slot) {
    return TalmApiSetCallback(session.handle, 2, 255, 2, &slot, 0);
}

// If clearing fails, callbacks come until the process ends. So each looks up its group here, in
// variables that are never destroyed, constant-initialised and lock-free.
std::atomic<OrvinGroup*> receiver{nullptr};  // null: no group is there for callbacks
std::atomic<int> callbacksInside{0};         // in the receiver, which ends only when they have left

// Keeps a callback's group from ending, for a scope.
class CallbackGuard {
public:
    explicit CallbackGuard(void* userArgument) : group(enter(userArgument)) {}
    ~CallbackGuard() {
        if (group != nullptr) {
            --callbacksInside;
        }
    }
    CallbackGuard(const CallbackGuard&) = delete;
    CallbackGuard& operator=(const CallbackGuard&) = delete;

    OrvinGroup* const group;  // null when it has ended

private:
    // Once the receiver is cleared, no callback counts itself any more, so a library that never
    // stops calling does not hold up the group's end.
    static OrvinGroup* enter(void* userArgument) {
        if (receiver != userArgument) {
            return nullptr;
        }
        ++callbacksInside;
        // The group may have ended between the look and the count.
        if (receiver == userArgument) {
            return static_cast<OrvinGroup*>(userArgument);
        }
        --callbacksInside;
        return nullptr;
    }
};

void transferCallback(std::int32_t result, void* userArgument, vanid_t source, vanid_t /*other*/,
                      std::uint32_t packetNumber, std::uint32_t /*lastWord*/) {
    const CallbackGuard called(userArgument);
    if (called.group != nullptr) {
        called.group->onTransferResult(result, source, packetNumber);
    }
}

void busChangeCallback(void* userArgument, const vanid_t* member, std::uint32_t event) {
    if (event != kMemberJoined) {
        return;
    }
    const CallbackGuard called(userArgument);
    if (called.group != nullptr) {
        called.group->markRejoined(*member);
    }
}

CallbackSlot slotOf(OrvinGroup& group, void (*function)()) {
    receiver = &group;
    return {function, &group};
}

}  // namespace

void OrvinGroup::endCallbacks() {
    OrvinGroup* self = this;
    receiver.compare_exchange_strong(self, nullptr);
    while (callbacksInside != 0) {
        sleepFor(kBetweenPolls);
    }
}

void OrvinGroup::registerTransferCallback() {
    const TransferCallback callback = transferCallback;
    setTransferCallback(*session, slotOf(*this, reinterpret_cast<void (*)()>(callback)));
}

void OrvinGroup::clearTransferCallback() {
    setTransferCallback(*session, {nullptr, nullptr});
}

void OrvinGroup::registerBusChangeCallback() {
    const BusChangeCallback callback = busChangeCallback;
    const CallbackSlot slot = slotOf(*this, reinterpret_cast<void (*)()>(callback));
    TalmApiSetBusChangeCallback(session->handle, &slot, 0);
}

void OrvinGroup::clearBusChangeCallback() {
    const CallbackSlot slot{nullptr, nullptr};
    TalmApiSetBusChangeCallback(session->handle, &slot, 0);
}

// An acknowledgement counts for the packet in flight, whatever packet it names, so a late one may
// hide that its device missed a packet. That device then fails its check.
void OrvinGroup::onTransferResult(std::int32_t result, const vanid_t& source,
                                  std::uint32_t packet) {
    ListLock lock(listMutex);
    if (result == kPacketReceived) {
        orvins.acknowledge(source);
        return;
    }
    // Looks at every record: a device may have been added twice.
    orvins.keepIf([&](Orvin& orvin) REQUIRES(listMutex) {
        if (vanid_equal(&orvin.vanid, &source) == 0) {
            return true;
        }
        if (result == kGoBack) {
            return goBack(orvin, packet);
        }
        setRestartPending(orvin.vanidText, false);
        printLine("\nRemoving Orvin %s due to faulty callback (%d / 0x%x)", orvin.vanidText.c_str(),
                  result, static_cast<unsigned>(result));
        return false;
    });
}

bool OrvinGroup::goBack(Orvin& orvin, std::uint32_t packet) {
    orvin.acknowledged = true;
    if (packetNumber <= packet) {
        return true;
    }
    printLine("Go back in fw: cur: %d new: %d", static_cast<int>(packetNumber),
              static_cast<int>(packet));
    packetNumber = packet;
    if (++orvin.goBackRequests < kMaxGoBackRequests) {
        return true;
    }
    setRestartPending(orvin.vanidText, false);
    printLine("\nRemoving Orvin %s due to endless go back (%d requests)", orvin.vanidText.c_str(),
              orvin.goBackRequests);
    return false;
}

void OrvinGroup::removeUnacknowledged() {
    ListLock lock(listMutex);
    orvins.keepIf([this](Orvin& orvin) REQUIRES(listMutex) {
        if (orvin.acknowledged) {
            return true;
        }
        setRestartPending(orvin.vanidText, false);
        printLine("\nRemoving Orvin %s due to timeout", orvin.vanidText.c_str());
        return false;
    });
}
