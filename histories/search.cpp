#include "histories/search.h"

#include "histories/scenarios.h"

namespace histories {

namespace {

History runAndCheck(const Scenario& scenario, const std::vector<Fault>& faults,
                    const Watch& watch) {
    watch.begins(scenario, faults);
    History history = run(scenario, faults);
    const std::vector<std::string> wrong = violations(scenario, faults, history);
    if (!wrong.empty()) {
        watch.found(scenario, faults, history, wrong);
    }
    return history;
}

bool strikesPacket(const Fault& fault) {
    switch (fault.kind) {
    case FaultKind::Lost:
    case FaultKind::Answer:
    case FaultKind::GoBack:
    case FaultKind::Late:
    case FaultKind::Twice:
        return true;
    case FaultKind::Result:
    case FaultKind::ResultLost:
    case FaultKind::WrongChecksum:
    case FaultKind::DeviceLeaves:
    case FaultKind::LinkDrops:
        return false;
    }
    return false;
}

// Whether both can strike at one call: a packet to one device has one fault, and a call one result.
bool goTogether(const Fault& first, const Fault& second) {
    if (strikesPacket(first) && strikesPacket(second)) {
        return first.member != second.member;
    }
    return first.kind != second.kind || first.member != second.member;
}

// Every second fault: at the same call, those that come after the first in the list of all that can
// strike there; and all at a later call of the run with the first.
std::uint64_t searchSecondFaults(const Scenario& scenario, const Fault& first,
                                 std::size_t placeInList, const Watch& watch) {
    std::uint64_t ran = 0;
    const History once = run(scenario, {first});
    for (std::size_t index = first.call; index < once.calls.size(); ++index) {
        const std::vector<Fault> all = faultsAt(scenario, index, once.calls[index]);
        const bool same = index == first.call;
        for (std::size_t place = same ? placeInList + 1 : 0; place < all.size(); ++place) {
            if (same && !goTogether(first, all[place])) {
                continue;
            }
            runAndCheck(scenario, {first, all[place]}, watch);
            ++ran;
        }
    }
    return ran;
}

}  // namespace

std::uint64_t searchSingleFaults(const Share& share, const Watch& watch) {
    std::uint64_t number = 0;
    std::uint64_t ran = 0;
    for (const Scenario& scenario : baseScenarios()) {
        const History base = runAndCheck(scenario, {}, watch);
        for (std::size_t index = 0; index < base.calls.size(); ++index) {
            for (const Fault& fault : faultsAt(scenario, index, base.calls[index])) {
                if (share.has(number++)) {
                    runAndCheck(scenario, {fault}, watch);
                    ++ran;
                }
            }
        }
    }
    return ran;
}

std::uint64_t searchPairs(const Share& share, const Watch& watch) {
    std::uint64_t number = 0;
    std::uint64_t ran = 0;
    for (const Scenario& scenario : baseScenarios()) {
        const History base = run(scenario, {});
        for (std::size_t first = 0; first < base.calls.size(); ++first) {
            const std::vector<Fault> all = faultsAt(scenario, first, base.calls[first]);
            for (std::size_t place = 0; place < all.size(); ++place) {
                if (share.has(number++)) {
                    ran += searchSecondFaults(scenario, all[place], place, watch);
                }
            }
        }
    }
    return ran;
}

std::uint64_t searchSeeds(std::uint32_t first, std::uint32_t count, const Share& share,
                          const Watch& watch) {
    std::uint64_t ran = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (share.has(i)) {
            const RandomCase random = randomCase(first + i);
            runAndCheck(random.scenario, random.faults, watch);
            ++ran;
        }
    }
    return ran;
}

}  // namespace histories
