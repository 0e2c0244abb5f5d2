// A run as one list in order: what the reader of the console sees, the status messages, the bus
// calls and callbacks, the files and the sleeps, each with the time.
#ifndef TESTS_SUPPORT_TIMELINE_H
#define TESTS_SUPPORT_TIMELINE_H

#include <string>

#include "support/tool_run.h"

// A line for each event. It begins with the time in seconds, where the time has moved, and the
// mutexes that the tool holds: 1 is the message writer's, 2 the device list's, 3 the full list's.
// Then follows
//
//     | text        on the console; \n: a blank line before or after it; \: the line goes on
//     = message     in the status file
//     < callback    with its devices and numbers
//     a bus call    with its devices and arguments, its result and what it wrote
//     open, close, sleep; polls of the packet loop are left out, as all sleeps of 1 ms
//
// Lines that differ only in their device or file are one. What repeats itself, packet by packet or
// poll by poll, is told and counted.
std::string timelineOf(const ToolRun& run);

#endif
