#include "group/device_list.h"

#include <cstring>

DeviceList::Key DeviceList::keyOf(const vanid_t& id) {
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    std::memcpy(&first, id.bytes, sizeof first);
    std::memcpy(&second, id.bytes + sizeof first, sizeof second);
    return {first, second, id.bytes[sizeof first + sizeof second]};
}

void DeviceList::add(const boost::shared_ptr<Orvin>& orvin) {
    acknowledgers.clear();
    records.push_back(orvin);
}

void DeviceList::assign(const DeviceList& other) {
    acknowledgers.clear();
    records = other.records;
}

void DeviceList::keepIf(const std::function<bool(Orvin&)>& stays) {
    for (auto record = records.begin(); record != records.end();) {
        if (stays(**record)) {
            ++record;
            continue;
        }
        acknowledgers.clear();
        record = records.erase(record);
    }
}

void DeviceList::clearAcknowledged() {
    for (const auto& orvin : records) {
        orvin->acknowledged = false;
    }
}

void DeviceList::acknowledge(const vanid_t& source) {
    const auto known = acknowledgers.find(keyOf(source));
    if (known != acknowledgers.end()) {
        for (Orvin* const orvin : known->second) {
            orvin->acknowledged = true;
        }
        return;
    }
    for (const auto& orvin : records) {
        if (vanid_equal(&orvin->vanid, &source) != 0) {
            orvin->acknowledged = true;
        }
    }
}

void DeviceList::prepareLookUp() {
    if (!acknowledgers.empty()) {
        return;
    }
    for (const auto& source : records) {
        for (const auto& orvin : records) {
            if (vanid_equal(&orvin->vanid, &source->vanid) != 0) {
                acknowledgers[keyOf(source->vanid)].push_back(orvin.get());
            }
        }
    }
}
