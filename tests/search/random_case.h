#ifndef TESTS_SEARCH_RANDOM_CASE_H
#define TESTS_SEARCH_RANDOM_CASE_H

#include <cstdint>

#include "search/case.h"

// Any command line, images and bus, with any mixture of faults; the same seed gives the same.
Case randomCase(std::uint32_t seed);

#endif
