#include "group/device_list.h"

#include <algorithm>
#include <cstring>

namespace {

struct ByBytes {
    static bool less(const vanid_t& a, const vanid_t& b) {
        return std::memcmp(&a, &b, sizeof a) < 0;
    }
    template <typename Entry>
    bool operator()(const Entry& entry, const vanid_t& id) const {
        return less(entry.first, id);
    }
    template <typename Entry>
    bool operator()(const vanid_t& id, const Entry& entry) const {
        return less(id, entry.first);
    }
};

}  // namespace

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
    const auto known =
        std::equal_range(acknowledgers.begin(), acknowledgers.end(), source, ByBytes());
    if (known.first != known.second) {
        std::for_each(known.first, known.second,
                      [](const auto& entry) { entry.second->acknowledged = true; });
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
                acknowledgers.emplace_back(source->vanid, orvin.get());
            }
        }
    }
    std::sort(acknowledgers.begin(), acknowledgers.end(),
              [](const auto& a, const auto& b) { return ByBytes::less(a.first, b.first); });
}
