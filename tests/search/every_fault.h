#ifndef TESTS_SEARCH_EVERY_FAULT_H
#define TESTS_SEARCH_EVERY_FAULT_H

#include <functional>
#include <vector>

#include "search/case.h"

// Every fault that can occur at `call`, which has this index in a run of the case; empty for a
// callback.
std::vector<Fault> faultsAt(const Case& searched, std::size_t index, const sim::Call& call);

// Each base case, alone and with every fault at every call.
// A case is made only when it is run.
using Visit = std::function<void(const std::function<Case()>& make)>;
void forEachSingle(const Visit& visit);

// Each base case with every pair of faults: the second one at any call of the run with the first.
void forEachPair(const Visit& visit);

#endif
