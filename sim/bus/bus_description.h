// The content of a bus file: the simulated hardware and its faults.
#ifndef SIM_BUS_BUS_DESCRIPTION_H
#define SIM_BUS_BUS_DESCRIPTION_H

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/member_type.h"
#include "sim/bus/event_queue.h"
#include "sim/bus/interceptor.h"
#include "sim/bus/replay_script.h"
#include "talm/vanid.h"

namespace sim {

// Selects packets or calls by their number, counted from 1.
struct Selection {
    bool all = false;
    std::uint32_t every = 0;  // every nth; 0: none
    std::set<std::uint32_t> numbers;

    bool contains(std::uint32_t number) const {
        return all || (every != 0 && number % every == 0) || numbers.count(number) != 0;
    }
};

// Injects `result` into calls of one function, to one device or to all.
struct CallFault {
    Function function = Function::Open;
    std::optional<vanid_t> device;
    Selection calls;
    int result = -1;
    bool carriedOut = false;            // the bus executes the calls, but their result is lost
    std::optional<Answer> answer = {};  // outputs of the calls
    Microseconds takes = 0;             // delay of the return
};

// A fault of a packet to a device, or of the device's answer.
struct PacketFault {
    enum class Kind {
        Lost,
        Damaged,  // one bit is wrong; the device acknowledges the packet and fails its check
        Twice,    // acknowledged after the usual delay and again after twice this delay
        Result,   // answered with `value` as the result
        GoBack,   // the device asks to go back to packet `value`
        Late,     // answered `value` microseconds late
    };
    Kind kind = Kind::Lost;
    Selection packets;                    // in the order in which the device gets packets
    std::optional<std::uint32_t> number;  // only the packet with this number; none: any
    std::optional<std::uint32_t> times;   // how often the fault occurs; none: always
    std::int64_t value = 0;

    // A fault of the next `times` packets.
    static PacketFault next(Kind kind, std::int64_t value = 0, std::uint32_t times = 1) {
        return {kind, {true, 0, {}}, std::nullopt, times, value};
    }
};

enum class KeepsOldVersion { Never, Once, Always };

// The faults of a device, except its call faults.
struct DeviceFaults {
    std::vector<PacketFault> packets;  // the first one that matches a packet applies
    bool neverReturns = false;
    KeepsOldVersion keepsOldVersion = KeepsOldVersion::Never;
    int reportsBack = 1;          // how often the bus reports the device when it comes back
    bool ignoresRepeats = false;  // does not acknowledge a packet that it already has
};

struct Versions {
    std::uint32_t hw = 1;
    std::uint32_t arm = 1;
    std::uint32_t dsp = 1;  // 0: not up
    std::uint32_t boosterArm = 1;
    std::uint16_t api = 1;
};

// The versions in the order of OrvinInfo's outputs.
inline std::vector<std::int64_t> numbersOf(const Versions& versions) {
    return {versions.hw, versions.arm, versions.dsp, versions.boosterArm, versions.api};
}

struct DeviceTiming {
    Microseconds acknowledge = 300;
    Microseconds acknowledgeJitter = 0;  // largest random delay added to acknowledge
    Microseconds busy = 0;               // after a packet; packets that come meanwhile are lost
    Microseconds check = 0;
    Microseconds install = 1'000'000;
    Microseconds restart = 2'000'000;
};

struct MemberDescription {
    vanid_t id{};
    std::uint8_t type = 0;
    bool onBus = true;
    Versions versions;  // from here on: only for an Orvin
    std::string name;   // at most kNameBytes
    DeviceTiming timing;
    DeviceFaults faults;
    std::shared_ptr<const ReplayScript> replay =
        std::make_shared<ReplayScript>();  // shared, because it is large
};

// A period during which the link is down.
struct LinkDrop {
    Microseconds at = 0;  // since the opening of the connection
    Microseconds duration = 0;
};

struct BusDescription {
    std::vector<MemberDescription> members;  // in the order in which the bus reports them
    Microseconds linkActiveAfter = 0;        // since the opening of the connection
    std::vector<LinkDrop> linkDrops;
    std::uint32_t seed = 1;
    std::string store;  // directory for the installed content; empty: none
    std::vector<CallFault> callFaults;
};

}  // namespace sim

#endif
