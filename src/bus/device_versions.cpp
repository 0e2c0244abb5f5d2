#include "bus/device_versions.h"

#include <cstring>

#include "core/bus_session.h"

namespace {

constexpr std::size_t kNameBytes = 32;  // what the library may fill, without a terminating zero
constexpr std::size_t kNameCharacters = 21;  // what is read of it

}  // namespace

bool getVersion(const BusSession& session, const vanid_t& id, DeviceVersions& versions) {
    versions = DeviceVersions();
    char name[kNameBytes] = {};
    if (OrvinInfo(session.handle, id, &versions.hw, &versions.arm, &versions.dsp,
                  &versions.boosterArm, &versions.api, nullptr, name) != 0) {
        return false;
    }
    versions.name.assign(name, strnlen(name, kNameCharacters));
    return true;
}
