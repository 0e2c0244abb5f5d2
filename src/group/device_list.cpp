#include "group/device_list.h"

#include <algorithm>
#include <cstring>

namespace {

bool isLess(const vanid_t& a, const vanid_t& b) {
    return std::memcmp(&a, &b, sizeof a) < 0;
}

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
    auto entry = std::lower_bound(
        acknowledgers.begin(), acknowledgers.end(), source,
        [](const auto& each, const vanid_t& id) { return isLess(each.first, id); });
    bool known = false;
    for (; entry != acknowledgers.end() && !isLess(source, entry->first); ++entry) {
        entry->second->acknowledged = true;
        known = true;
    }
    if (known) {
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
              [](const auto& a, const auto& b) { return isLess(a.first, b.first); });
}
