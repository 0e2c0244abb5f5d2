#ifndef SIM_HISTORY_H
#define SIM_HISTORY_H

#include <cstdint>
#include <optional>
#include <vector>

#include "sim/event_queue.h"

namespace sim {

// One transfer callback after a data packet that was sent.
struct PacketReply {
    Microseconds delay = 0;
    std::int32_t result = 0;
    std::optional<std::uint32_t> packet = {};  // none: the number of the packet that was sent
};

// One report of the bus about a device.
struct BusChange {
    Microseconds delay = 0;
    std::uint32_t event = 0;
};

// What a device once did by itself and does again, in the same order.
struct History {
    std::vector<std::vector<PacketReply>> packets;  // to each data packet that any device is sent
    // After the opening of the connection, then after each start of an update of this device. A
    // start with such a list installs at once and restarts nothing.
    std::vector<std::vector<BusChange>> changes;
};

}  // namespace sim

#endif
