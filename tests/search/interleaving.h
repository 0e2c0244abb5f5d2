#ifndef TESTS_SEARCH_INTERLEAVING_H
#define TESTS_SEARCH_INTERLEAVING_H

#include "search/every_fault.h"

// Small base cases with every callback that may come when the tool takes the lock of the device
// list, alone and with every second one.
void forEachInterleaving(const Visit& visit);

#endif
