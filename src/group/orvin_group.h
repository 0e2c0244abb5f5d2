#ifndef GROUP_ORVIN_GROUP_H
#define GROUP_ORVIN_GROUP_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <string>

#include "group/device_list.h"
#include "group/list_mutex.h"
#include "talm/talm_api.h"

class FirmwareImage;
struct BusSession;

// The Orvins that take part in an upgrade, and the only state shared between the main thread and
// the bus library's callback threads.
//
// Each device has one record that two lists hold: the device list `orvins` loses every device that
// fails, is up to date or is of another type; the full list `allOrvins` keeps them all, so that the
// device list can be restored for the next image. Records are not unique: adding an identifier
// twice gives two.
//
// Locks: `listMutex` first, then `fullListMutex`; never the other way round. No operation takes a
// mutex that it already holds, because a mutex whose initialisation failed is not recursive. The
// library's threads call onTransferResult and markRejoined; the main thread calls all others.
//
// A callback may come at any time, even where its clearing failed. It reaches the group that
// registered last. While it is inside, the group does not end; one that comes later finds no group
// and does nothing.
class OrvinGroup {
public:
    using Orvin = ::Orvin;

    // The session is not owned and must be open while the group makes bus calls. With a message
    // file in use, the group pauses after certain messages, so that a service that follows sees
    // them.
    OrvinGroup(BusSession* busSession, bool messageFileInUse);
    ~OrvinGroup();  // waits until no callback is inside; hold no lock
    OrvinGroup(const OrvinGroup&) = delete;
    OrvinGroup& operator=(const OrvinGroup&) = delete;

    // ---- members (orvin_group.cpp) ----

    void lockList() ACQUIRE(listMutex);
    void unlockList() RELEASE(listMutex);
    void lockFullList() ACQUIRE(fullListMutex);
    void unlockFullList() RELEASE(fullListMutex);

    void addOrvin(const std::string& vanidText) EXCLUDES(listMutex, fullListMutex);
    int count() EXCLUDES(listMutex);
    void getVanidTexts(std::list<std::string>& out) EXCLUDES(listMutex);  // appends
    // Leaves the records' flags alone.
    void restoreFromFullList() EXCLUDES(listMutex, fullListMutex);
    void setRestartPending(const std::string& vanidText, bool value) REQUIRES(listMutex)
        EXCLUDES(fullListMutex);
    void resetRejoinState() EXCLUDES(listMutex);
    void clearAcknowledged() EXCLUDES(listMutex);
    bool allAcknowledged() EXCLUDES(listMutex);
    bool allRejoined() EXCLUDES(listMutex);

    // Marks the device's first record as reported back. Counts every report, also a second one of
    // the same device. Callback threads.
    void markRejoined(const vanid_t& id) EXCLUDES(listMutex);

    // Whether every device answers the version query with a DSP version other than 0. Holds
    // listMutex for the whole scan, with a pause of 0.5 s after each answer.
    bool allOnline() EXCLUDES(listMutex);

    // ---- transfer results, bus changes and silent devices (bus_callbacks.cpp) ----

    void registerTransferCallback();
    void clearTransferCallback();
    void registerBusChangeCallback();
    void clearBusChangeCallback();

    // Takes the result that the device `source` reports for a packet. Callback threads.
    void onTransferResult(std::int32_t result, const vanid_t& source, std::uint32_t packet)
        EXCLUDES(listMutex);

    void removeUnacknowledged() EXCLUDES(listMutex);

    // ---- selection (version_check.cpp) ----

    // Values of `removeUnreachable` and `verbose` below.
    static constexpr bool kKeepUnreachable = false;
    static constexpr bool kRemoveUnreachable = true;
    static constexpr bool kQuiet = false;
    static constexpr bool kVerbose = true;

    // Asks every device for its versions and leaves in the device list those that need the image,
    // and unless `removeUnreachable` those that did not answer. Appends the devices that have the
    // image's version to `upToDate`. `verbose`: names those it removes as up to date or of another
    // type. Holds listMutex for the whole scan.
    void checkVersions(const FirmwareImage& image, std::list<std::string>& upToDate,
                       bool removeUnreachable, bool verbose) EXCLUDES(listMutex);

    // ---- the packet in flight (sequence_number.cpp). Requests to go back lower its number ----

    void startPackets() EXCLUDES(listMutex);  // with packet 0
    std::uint32_t nextPacket() EXCLUDES(listMutex);

    // Puts the packet in flight, with no acknowledgement yet. False, and nothing is done, when it
    // is no longer the next one.
    [[nodiscard]] bool takePacket(std::uint32_t packet) EXCLUDES(listMutex);

    // Every device left has the packet in flight.
    void markPacketAcknowledged() EXCLUDES(listMutex);

    // ---- one transfer, step by step (src/transfer) ----

    // Announces the image to every device and registers the transfer callback. Returns count().
    int initializeTransfers(const FirmwareImage& image) EXCLUDES(listMutex);

    // Sends the content to all devices at once, packet by packet, and clears the transfer callback.
    // Returns 0 or what ended it: a transfer_result.
    [[nodiscard]] int transferData(FirmwareImage& image) EXCLUDES(listMutex);

    // Has every device check what it received. Returns count().
    int verifyAll(std::uint32_t device) EXCLUDES(listMutex);

    // Registers the bus change callback and has every device install the image. Returns count().
    int startUpdates(std::uint32_t device) EXCLUDES(listMutex);

    // Waits until the devices are back, within a budget that grows with their number, and clears
    // the bus change callback. False when the budget ran out.
    [[nodiscard]] bool waitForRejoin() EXCLUDES(listMutex);

private:
    // Lets no callback in any more, and waits for those that are inside.
    void endCallbacks() EXCLUDES(listMutex, fullListMutex);

    // Carries out one step of the transfer for every device. One that fails it leaves the device
    // list; `removalLine` is the format of the line that names it.
    void runStep(const char* removalLine, const std::function<bool(Orvin&)>& step)
        EXCLUDES(listMutex);

    // False when the device has asked too often and is to be dropped.
    bool goBack(Orvin& orvin, std::uint32_t packet) REQUIRES(listMutex);

    // Number of the next packet to send. The main thread takes numbers in order; a go-back request
    // lowers it, on a callback thread.
    std::uint32_t packetNumber GUARDED_BY(listMutex) = 0;
    std::uint32_t packetsAcknowledged GUARDED_BY(listMutex) = 0;  // the most so far, by all devices
    ListMutex listMutex ACQUIRED_BEFORE(fullListMutex){"Orvin list", Mutex::Kind::Recursive};
    ListMutex fullListMutex{"Orvin full list", Mutex::Kind::Default};
    std::atomic<std::uint32_t> rejoinedCount{0};  // reports of devices coming back since the start
    DeviceList orvins GUARDED_BY(listMutex);
    DeviceList allOrvins GUARDED_BY(fullListMutex);
    BusSession* const session;
    const bool useMessageFile;
};

#endif
