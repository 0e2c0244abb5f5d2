#ifndef HISTORIES_SEARCH_H
#define HISTORIES_SEARCH_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "histories/history.h"

namespace histories {

// Told of every history that shows what it must not.
using Finding =
    std::function<void(const Scenario& scenario, const std::vector<Fault>& faults,
                       const History& history, const std::vector<std::string>& violations)>;

// Told of every history before it is run.
using Beginning = std::function<void(const Scenario& scenario, const std::vector<Fault>& faults)>;

struct Watch {
    Beginning begins;
    Finding found;
};

// Which part of a search to do, so that several processes can share it.
struct Share {
    std::uint64_t part = 0;
    std::uint64_t parts = 1;

    bool has(std::uint64_t number) const { return number % parts == part; }
};

// Each returns the number of histories that it ran, all of them different.

// Every base history with every single fault.
std::uint64_t searchSingleFaults(const Share& share, const Watch& watch);

// Every base history with every pair of faults: the second at a later call of the run with the
// first.
std::uint64_t searchPairs(const Share& share, const Watch& watch);

// Random histories by seed.
std::uint64_t searchSeeds(std::uint32_t first, std::uint32_t count, const Share& share,
                          const Watch& watch);

}  // namespace histories

#endif
