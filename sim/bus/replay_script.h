#ifndef SIM_BUS_REPLAY_SCRIPT_H
#define SIM_BUS_REPLAY_SCRIPT_H

#include <cstdint>
#include <optional>
#include <vector>

#include "sim/bus/event_queue.h"

namespace sim {

// What a device answers to a data packet, through the transfer callback.
struct PacketAnswer {
    Microseconds delay = 0;  // from the sending
    std::int32_t result = 0;
    std::optional<std::uint32_t> packet =
        {};  // none, in a bus file: that of the packet that was sent
};
using PacketAnswers = std::vector<PacketAnswer>;

// One report of the bus about a device.
struct BusChange {
    Microseconds delay = 0;
    std::uint32_t event = 0;
};

// What a device once did by itself and does again, in the same order.
struct ReplayScript {
    std::vector<PacketAnswers> packets;  // to each data packet that any device is sent
    // After the opening of the connection, then after each start of an update of this device. A
    // start with such a list installs at once and restarts nothing.
    std::vector<std::vector<BusChange>> changes;
};

}  // namespace sim

#endif
