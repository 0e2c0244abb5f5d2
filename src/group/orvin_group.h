#ifndef GROUP_ORVIN_GROUP_H
#define GROUP_ORVIN_GROUP_H

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "core/mutex.h"
#include "talm/talm_api.h"

class FirmwareImage;
struct BusSession;
struct PacketTransfer;

// The Orvins that take part in an upgrade, and the only state shared between the main thread and
// the bus library's callback threads.
//
// Each device has one record that two lists hold: the device list `orvins` loses every device that
// fails, is up to date or is of another type; the full list `allOrvins` keeps them all, so that the
// device list can be restored for the next image. Records are not unique: adding an identifier
// twice gives two.
//
// Locks: `listMutex` first, then `fullListMutex`; never the other way round. No operation takes a
// mutex that it holds: one whose initialisation failed is not recursive. All operations are the
// main thread's, but for onTransferResult and markRejoined, which come on the library's threads.
//
// The group outlives its callbacks: one that is still running when it is cleared takes a moment to
// end, and the rest of the rejoin wait and a version check come before the end of the group.
class OrvinGroup {
public:
    // Identifier and text never change; the rest is guarded by the group's listMutex.
    struct Orvin {
        vanid_t vanid{};              // all zero when the text is no identifier
        std::string vanidText;        // as given; names the device in every message
        bool acknowledged = false;    // has the packet in flight
        int goBackRequests = 0;       // since the transfer last got further than ever before
        bool rejoined = false;        // was reported back on the bus after its restart
        bool restartPending = false;  // was started on an update after which it restarts
    };

    // `session` is not owned and must be open while the group makes bus calls. `useMessageFile`:
    // somebody follows the status message file, so leave certain messages there for a while.
    OrvinGroup(BusSession* session, bool useMessageFile);
    ~OrvinGroup();
    OrvinGroup(const OrvinGroup&) = delete;
    OrvinGroup& operator=(const OrvinGroup&) = delete;

    // ---- members (orvin_group.cpp) ----

    void lockList() ACQUIRE(listMutex);
    void unlockList() RELEASE(listMutex);
    void lockFullList() ACQUIRE(fullListMutex);
    void unlockFullList() RELEASE(fullListMutex);

    void addOrvin(const std::string& vanidText) EXCLUDES(listMutex);
    int count() EXCLUDES(listMutex);
    void getVanidTexts(std::list<std::string>& out) EXCLUDES(listMutex);  // appends
    void restoreFromFullList() EXCLUDES(listMutex);  // leaves the records' flags alone
    void setRestartPending(const std::string& vanidText, bool value) EXCLUDES(listMutex);
    void resetRejoinState() EXCLUDES(listMutex);
    void clearAcknowledged() EXCLUDES(listMutex);
    bool allAcknowledged() EXCLUDES(listMutex);
    bool allRejoined() EXCLUDES(listMutex);

    // Counts a device as reported back, each report anew. Callback threads.
    void markRejoined(const vanid_t& id) EXCLUDES(listMutex);

    // Whether every device answers the version query with a DSP version other than 0. Holds
    // listMutex for the whole scan, with a pause of 0.5 s after each answer.
    bool allOnline() EXCLUDES(listMutex);

    // ---- transfer results, bus changes and silent devices (bus_callbacks.cpp) ----

    void registerTransferCallback();
    void clearTransferCallback();
    void registerBusChangeCallback();
    void clearBusChangeCallback();

    // What the device `source` made of a packet. Callback threads.
    void onTransferResult(std::int32_t result, const vanid_t& source, std::uint32_t packet)
        EXCLUDES(listMutex);

    void removeUnacknowledged() EXCLUDES(listMutex);

    // ---- selection (version_check.cpp) ----

    // Asks every device for its versions and leaves in the device list those that need the image,
    // and unless `removeUnreachable` those that did not answer. Appends the devices that have the
    // image's version to `upToDate`. `verbose`: names those it removes as up to date or of another
    // type. Holds listMutex for the whole scan.
    void checkVersions(const FirmwareImage& image, std::list<std::string>& upToDate,
                       bool removeUnreachable, bool verbose) EXCLUDES(listMutex);

    // ---- one transfer, step by step (src/transfer) ----

    // Announces the image to every device and registers the transfer callback. Returns count().
    int initializeTransfers(const FirmwareImage& image) EXCLUDES(listMutex);

    // Sends the content to all devices at once, packet by packet, and clears the transfer callback.
    // Returns 0, or 128 no device left, 131 read error, 135 packet refused.
    int transferData(FirmwareImage& image) EXCLUDES(listMutex);

    // Has every device check what it received. Returns count().
    int verifyAll(std::uint32_t device) EXCLUDES(listMutex);

    // Registers the bus change callback and has every device install the image. Returns count().
    int startUpdates(std::uint32_t device) EXCLUDES(listMutex);

    // Waits until the devices are back, within a budget that grows with their number, and clears
    // the bus change callback. False when the budget ran out.
    bool waitForRejoin() EXCLUDES(listMutex);

private:
    using OrvinList = std::list<boost::shared_ptr<Orvin>>;

    // Not std::hash itself: the standard library takes that for slow and would rather walk through
    // a table of up to 20. Not noexcept: it would compute the hashes of what it holds again.
    struct BytesHash {
        std::size_t operator()(std::string_view bytes) const {
            return std::hash<std::string_view>()(bytes);
        }
    };

    // Unlinks the device and returns its successor.
    OrvinList::iterator eraseMember(OrvinList::iterator member) REQUIRES(listMutex);

    void setRestartPendingLocked(const std::string& vanidText, bool value) REQUIRES(listMutex);
    void clearAcknowledgedLocked() REQUIRES(listMutex);

    void fillReporters() REQUIRES(listMutex);
    bool acknowledge(const vanid_t& source) REQUIRES(listMutex);
    OrvinList::iterator applyTransferResult(OrvinList::iterator member, std::int32_t result,
                                            std::uint32_t packet) REQUIRES(listMutex);
    OrvinList::iterator removeForGoingBack(OrvinList::iterator member) REQUIRES(listMutex);

    void runStep(const char* lineStart, const char* name, const std::function<bool(Orvin&)>& step)
        EXCLUDES(listMutex);

    // The packet loop of transferData.
    int sendContent(PacketTransfer& transfer) EXCLUDES(listMutex);
    void startCounting() EXCLUDES(listMutex);
    void noteAcknowledged() EXCLUDES(listMutex);
    std::uint32_t nextPacket() EXCLUDES(listMutex);
    bool lookUpPacket(PacketTransfer& transfer) EXCLUDES(listMutex);
    bool takePacket(const PacketTransfer& transfer) EXCLUDES(listMutex);
    void showProgress(const PacketTransfer& transfer) EXCLUDES(listMutex);
    int sendUntilAcknowledged(PacketTransfer& transfer) EXCLUDES(listMutex);
    int sendPacket(const PacketTransfer& transfer);

    // The phases of waitForRejoin. `budget`: the seconds left to wait.
    void waitForLink();
    void waitForReports(std::int64_t& budget);
    void waitForMembership(std::int64_t& budget);
    bool waitForAnswers(std::int64_t& budget);

    // Number of the next packet to send. The main thread takes numbers in order; a go-back request
    // lowers it, on a callback thread.
    std::uint32_t packetNumber GUARDED_BY(listMutex) = 0;
    std::uint32_t packetsAcknowledged GUARDED_BY(listMutex) = 0;  // the most so far, by all devices
    Mutex listMutex ACQUIRED_BEFORE(fullListMutex);               // recursive
    Mutex fullListMutex;
    std::atomic<std::uint32_t> rejoinedCount{0};  // reports of devices coming back since the start
    OrvinList orvins GUARDED_BY(listMutex);
    // The members of `orvins` that an acknowledgement is about, by the bytes of the identifier that
    // acknowledges: of every member's identifier, or empty since `orvins` changed. The records in
    // `orvins` are what the pointers and views lead to.
    std::unordered_multimap<std::string_view, Orvin*, BytesHash> reporters GUARDED_BY(listMutex);
    OrvinList allOrvins GUARDED_BY(fullListMutex);
    BusSession* const session;
    const bool useMessageFile;

    friend class ListLock;
    friend class FullListLock;
};

#endif
