#include "histories/search.h"

#include "histories/scenarios.h"

namespace histories {

namespace {

History runAndCheck(const Scenario& scenario, const std::vector<Fault>& faults,
                    const Finding& found) {
    History history = run(scenario, faults);
    const std::vector<std::string> wrong = violations(scenario, faults, history);
    if (!wrong.empty()) {
        found(scenario, faults, history, wrong);
    }
    return history;
}

// Every second fault, at a later call of the run with the first.
std::uint64_t searchSecondFaults(const Scenario& scenario, const Fault& first,
                                 const Finding& found) {
    std::uint64_t ran = 0;
    const History once = run(scenario, {first});
    for (std::size_t index = first.call + 1; index < once.calls.size(); ++index) {
        for (const Fault& second : faultsAt(scenario, index, once.calls[index])) {
            runAndCheck(scenario, {first, second}, found);
            ++ran;
        }
    }
    return ran;
}

}  // namespace

std::uint64_t searchSingleFaults(const Share& share, const Finding& found) {
    std::uint64_t number = 0;
    std::uint64_t ran = 0;
    for (const Scenario& scenario : baseScenarios()) {
        const History base = runAndCheck(scenario, {}, found);
        for (std::size_t index = 0; index < base.calls.size(); ++index) {
            for (const Fault& fault : faultsAt(scenario, index, base.calls[index])) {
                if (share.has(number++)) {
                    runAndCheck(scenario, {fault}, found);
                    ++ran;
                }
            }
        }
    }
    return ran;
}

std::uint64_t searchPairs(const Share& share, const Finding& found) {
    std::uint64_t number = 0;
    std::uint64_t ran = 0;
    for (const Scenario& scenario : baseScenarios()) {
        const History base = run(scenario, {});
        for (std::size_t first = 0; first < base.calls.size(); ++first) {
            for (const Fault& fault : faultsAt(scenario, first, base.calls[first])) {
                if (share.has(number++)) {
                    ran += searchSecondFaults(scenario, fault, found);
                }
            }
        }
    }
    return ran;
}

std::uint64_t searchSeeds(std::uint32_t first, std::uint32_t count, const Share& share,
                          const Finding& found) {
    std::uint64_t ran = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (share.has(i)) {
            const RandomCase random = randomCase(first + i);
            runAndCheck(random.scenario, random.faults, found);
            ++ran;
        }
    }
    return ran;
}

}  // namespace histories
