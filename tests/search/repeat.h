#ifndef TESTS_SEARCH_REPEAT_H
#define TESTS_SEARCH_REPEAT_H

#include <string>
#include <vector>

#include "search/case.h"

// Runs the tool again on the bus that `orvin-recording bus` makes of a recording of the run.
// Returns the differences, one line each.
std::vector<std::string> differencesWhenRepeated(const Case& searched, const ToolRun& run);

// What `orvin-recording check` says against the bus libraries without a fault that causes it, one
// line each.
std::vector<std::string> wrongAccusations(const Case& searched, const ToolRun& run);

#endif
