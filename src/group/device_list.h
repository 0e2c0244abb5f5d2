#ifndef GROUP_DEVICE_LIST_H
#define GROUP_DEVICE_LIST_H

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "talm/vanid.h"

// One device of a group. Identifier and text never change; the rest is guarded by the group's
// listMutex.
struct Orvin {
    vanid_t vanid{};              // all zero when the text is no identifier
    std::string vanidText;        // as given; names the device in every message
    bool acknowledged = false;    // has the packet in flight
    bool rejoined = false;        // was reported back on the bus after its restart
    bool restartPending = false;  // was started on an update after which it restarts
    int goBackRequests = 0;       // since the transfer last got further than ever before
};

// Records of devices, in the order of adding, and a look-up of the records that an acknowledgement
// marks. Has no lock: the group holds one around every call.
class DeviceList {
public:
    using Records = std::list<boost::shared_ptr<Orvin>>;

    Records::const_iterator begin() const { return records.begin(); }
    Records::const_iterator end() const { return records.end(); }
    std::size_t size() const { return records.size(); }

    void add(const boost::shared_ptr<Orvin>& orvin);
    void assign(const DeviceList& other);

    // Asks for each device, in order, whether it stays, and drops it at once if it does not.
    void keepIf(const std::function<bool(Orvin&)>& stays);

    void clearAcknowledged();

    // Marks every record of the device as having the packet in flight. Allocates nothing.
    void acknowledge(const vanid_t& source);

    // Makes the next acknowledgements quick, until the list changes. Comparing each with every
    // device would be 3969 calls into the library for a packet to 63 devices.
    void prepareLookUp();

private:
    // An identifier's bytes as numbers, which are quicker to compare.
    using Key = std::tuple<std::uint64_t, std::uint64_t, std::uint8_t>;
    static Key keyOf(const vanid_t& id);

    Records records;
    // The records that each device's identifier acknowledges for; empty since `records` changed.
    std::map<Key, std::vector<Orvin*>> acknowledgers;
};

#endif
