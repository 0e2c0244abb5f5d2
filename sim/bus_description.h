// What a bus file says: the hardware on a simulated bus, and what is wrong with it.
#ifndef SIM_BUS_DESCRIPTION_H
#define SIM_BUS_DESCRIPTION_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/event_queue.h"
#include "talm/vanid.h"

namespace sim {

constexpr std::uint8_t kBusMasterType = 16;
constexpr std::uint8_t kOrvinType = 64;
constexpr std::size_t kNameBytes = 32;

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
    bool picksAny() const { return all || every != 0 || !numbers.empty(); }
};

// Calls that do not end as they should, but with `result`.
struct CallFault {
    Selection calls;
    int result = -1;
};

// Counts the calls that a fault may strike. Gives the fault's result, or 0 for a call that is
// spared.
class FaultCounter {
public:
    int next(const CallFault& fault) { return fault.calls.contains(++count_) ? fault.result : 0; }

private:
    std::uint32_t count_ = 0;
};

// When packet `at` arrives the device asks for everything from packet `to` on.
struct GoBack {
    std::uint32_t at = 0;
    std::uint32_t to = 0;
    std::optional<std::uint32_t> times = 1;  // none: always
};

// The device answers packet `at` with a result that is neither "received" nor "go back".
struct FaultResult {
    std::uint32_t at = 0;
    std::int32_t result = 1;
};

enum class KeepsOldVersion { Never, Once, Always };

struct DeviceFaults {
    bool present = false;  // whether there is any
    Selection losesPackets;
    Selection acknowledgesTwice;
    std::vector<GoBack> goBack;
    std::vector<FaultResult> faultResults;
    CallFault typeQuery;
    CallFault versionQuery;
    CallFault writeRequest;
    CallFault check;
    CallFault start;
    bool neverReturns = false;
    KeepsOldVersion keepsOldVersion = KeepsOldVersion::Never;
    int reportsBack = 1;  // how often the bus reports the device when it comes back

    bool strikePackets() const {
        return losesPackets.picksAny() || acknowledgesTwice.picksAny() || !goBack.empty() ||
               !faultResults.empty();
    }
};

struct Versions {
    std::uint32_t hw = 1;
    std::uint32_t arm = 1;
    std::uint32_t dsp = 1;  // 0: not up
    std::uint32_t boosterArm = 1;
    std::uint16_t api = 1;
};

struct DeviceTiming {
    Microseconds acknowledge = 300;
    Microseconds acknowledgeJitter = 0;  // at most so much later, at random
    Microseconds check = 0;
    Microseconds install = 1'000'000;
    Microseconds restart = 2'000'000;
};

struct MemberDescription {
    vanid_t id{};
    std::uint8_t type = 0;
    Versions versions;  // this and what follows is an Orvin's
    std::string name;   // at most kNameBytes
    DeviceTiming timing;
    DeviceFaults faults;
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
    CallFault open;
    CallFault getMembers;
    CallFault data;
};

}  // namespace sim

#endif
