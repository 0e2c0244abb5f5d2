#ifndef HISTORIES_SCENARIOS_H
#define HISTORIES_SCENARIOS_H

#include <cstdint>
#include <vector>

#include "histories/history.h"

namespace histories {

// The histories that are gone through with every fault at every call. The first one is the
// smallest.
std::vector<Scenario> baseScenarios();

// Any command line, images and bus, with any mixture of faults; the same seed gives the same.
struct RandomCase {
    Scenario scenario;
    std::vector<Fault> faults;
};
RandomCase randomCase(std::uint32_t seed);

// Every fault that can strike at a call, of which a run without it has this record.
std::vector<Fault> faultsAt(const Scenario& scenario, std::size_t index, const CallRecord& record);

}  // namespace histories

#endif
