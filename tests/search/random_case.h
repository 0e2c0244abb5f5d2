#ifndef TESTS_SEARCH_RANDOM_CASE_H
#define TESTS_SEARCH_RANDOM_CASE_H

#include <cstdint>

#include "search/case.h"

// A random command line, images and bus, with random faults; the same seed gives the same case.
Case randomCase(std::uint32_t seed);

#endif
