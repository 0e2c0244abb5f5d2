// What a bus file says: the hardware on a simulated bus, and what is wrong with it.
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

// Transfer results that are no faults.
constexpr std::int32_t kReceivedResult = 0;
constexpr std::int32_t kGoBackResult = 17;

// Picks some out of a row of things, counted from 1 as they come.
struct Selection {
    bool all = false;
    std::uint32_t every = 0;  // every nth; 0: none
    std::set<std::uint32_t> numbers;

    bool contains(std::uint32_t number) const {
        return all || (every != 0 && number % every == 0) || numbers.count(number) != 0;
    }
};

// Makes calls of one function, to one device or to any, end with `result`.
struct CallFault {
    Function function = Function::Open;
    std::optional<vanid_t> device;
    Selection calls;
    int result = -1;
    bool carriedOut = false;            // the bus carries them out all the same
    std::optional<Answer> answer = {};  // what the calls write
    Microseconds takes = 0;             // added to the calls' own time
};

// What happens to a packet on its way to a device, or to the device's answer.
struct PacketFault {
    enum class Kind {
        Lost,
        Damaged,  // and acknowledged all the same: the device fails its check
        Twice,    // acknowledged once more, as much later as the first time
        Result,   // answered with `value` as the result
        GoBack,   // to packet `value`
        Late,     // by `value` microseconds
    };
    Kind kind = Kind::Lost;
    Selection packets;                    // by the order in which they come to the device
    std::optional<std::uint32_t> number;  // only the packet of this number
    std::optional<std::uint32_t> times;   // how often it strikes; none: always
    std::int64_t value = 0;

    // Strikes the next `times` packets.
    static PacketFault next(Kind kind, std::int64_t value = 0, std::uint32_t times = 1) {
        return {kind, {true, 0, {}}, std::nullopt, times, value};
    }
};

enum class KeepsOldVersion { Never, Once, Always };

// What is wrong with a device beside its answers to calls.
struct DeviceFaults {
    std::vector<PacketFault> packets;  // of those that strike a packet, the first one counts
    bool neverReturns = false;
    KeepsOldVersion keepsOldVersion = KeepsOldVersion::Never;
    int reportsBack = 1;          // how often the bus reports the device when it comes back
    bool ignoresRepeats = false;  // does not acknowledge a packet that it has already
};

struct Versions {
    std::uint32_t hw = 1;
    std::uint32_t arm = 1;
    std::uint32_t dsp = 1;  // 0: not up
    std::uint32_t boosterArm = 1;
    std::uint16_t api = 1;
};

// As OrvinInfo writes them.
inline std::vector<std::int64_t> numbersOf(const Versions& versions) {
    return {versions.hw, versions.arm, versions.dsp, versions.boosterArm, versions.api};
}

struct DeviceTiming {
    Microseconds acknowledge = 300;
    Microseconds acknowledgeJitter = 0;  // at most so much later, at random
    Microseconds busy = 0;               // after a packet; what comes meanwhile is lost
    Microseconds check = 0;
    Microseconds install = 1'000'000;
    Microseconds restart = 2'000'000;
};

struct MemberDescription {
    vanid_t id{};
    std::uint8_t type = 0;
    bool onBus = true;
    Versions versions;  // this and what follows is an Orvin's
    std::string name;   // at most kNameBytes
    DeviceTiming timing;
    DeviceFaults faults;
    std::shared_ptr<const ReplayScript> replay =
        std::make_shared<ReplayScript>();  // large: not copied
};

// A time during which the link is down, from the opening of the connection.
struct LinkDrop {
    Microseconds at = 0;
    Microseconds duration = 0;
};

struct BusDescription {
    std::vector<MemberDescription> members;  // in the order in which the bus reports them
    Microseconds linkActiveAfter = 0;        // from the opening of the connection
    std::vector<LinkDrop> linkDrops;
    std::uint32_t seed = 1;
    std::string trace;  // file for the bus calls; empty: none
    std::string store;  // directory for the content that devices install; empty: none
    std::vector<CallFault> callFaults;
};

}  // namespace sim

#endif
