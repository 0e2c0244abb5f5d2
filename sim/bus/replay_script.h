#ifndef SIM_BUS_REPLAY_SCRIPT_H
#define SIM_BUS_REPLAY_SCRIPT_H

#include <cstdint>
#include <optional>
#include <vector>

#include "sim/bus/event_queue.h"

namespace sim {

// A device's answer to a data packet, through the transfer callback.
struct PacketAnswer {
    Microseconds delay = 0;  // since the packet was sent
    std::int32_t result = 0;
    std::optional<std::uint32_t> packet = {};  // none: the number of the packet that was sent
};
using PacketAnswers = std::vector<PacketAnswer>;

// A report of the bus about a device.
struct BusChange {
    Microseconds delay = 0;
    std::uint32_t event = 0;
};

// Recorded callbacks about a device, which the bus repeats in the same order.
struct ReplayScript {
    std::vector<PacketAnswers> packets;  // for each data packet to any device
    // First since the opening of the connection, then since each start of an update of this device.
    // An update with such a list installs at once, without a restart.
    std::vector<std::vector<BusChange>> changes;
};

}  // namespace sim

#endif
