#ifndef TESTS_SEARCH_EVERY_FAULT_H
#define TESTS_SEARCH_EVERY_FAULT_H

#include <functional>
#include <vector>

#include "search/case.h"

// With that many Orvins with old firmware, and a status file.
Case baseCase(const std::string& name, int orvins, const std::vector<std::string>& arguments,
              const std::vector<Image>& images);

// Each base case, alone and with every fault at every call.
// A case is made only when it is run.
using Visit = std::function<void(const std::function<Case()>& make)>;
void forEachSingle(const Visit& visit);

// A base case with every failure of a status message.
void forEachStatusFault(const Visit& visit);

// Each base case with every fault staying from every call on: for a few calls, for many, for ever.
// Where it ends, nothing else goes wrong, and each device is new or named.
void forEachLasting(const Visit& visit);

// Each base case with every pair of faults: the second one at any call of the run with the first.
void forEachPair(const Visit& visit);

// Each base case with every allocation of the tool failing.
void forEachAllocation(const Visit& visit);

#endif
