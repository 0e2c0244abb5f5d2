#ifndef BUS_DEVICE_VERSIONS_H
#define BUS_DEVICE_VERSIONS_H

#include <cstdint>
#include <string>

#include "talm/vanid.h"

struct BusSession;

// What an Orvin tells about itself.
struct DeviceVersions {
    std::uint32_t hw = 0;
    std::uint32_t arm = 0;
    std::uint32_t dsp = 0;
    std::uint32_t boosterArm = 0;
    std::uint16_t api = 0;
    std::string name;  // at most 21 characters
};

// Asks one Orvin for its versions and its name. False when it did not answer; what `versions` holds
// then means nothing. Blocks for the answer.
[[nodiscard]] bool getVersion(const BusSession& session, const vanid_t& id,
                              DeviceVersions& versions);

#endif
