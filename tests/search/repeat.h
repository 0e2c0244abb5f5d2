#ifndef TESTS_SEARCH_REPEAT_H
#define TESTS_SEARCH_REPEAT_H

#include <stdexcept>
#include <string>
#include <vector>

#include "search/case.h"

struct CannotBeRepeated : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Runs the tool again on the bus that `orvin-recording bus` makes of a recording of the run.
// Returns the differences, one line each. Throws CannotBeRepeated if orvin-recording refuses.
std::vector<std::string> differencesWhenRepeated(const Case& searched, const ToolRun& run);

#endif
