#ifndef TESTS_SEARCH_PROMISES_H
#define TESTS_SEARCH_PROMISES_H

#include <string>
#include <vector>

#include "search/case.h"

// The promises of docs/reliability.md that the run breaks, one line each.
std::vector<std::string> brokenPromises(const Case& searched, const ToolRun& run);

#endif
