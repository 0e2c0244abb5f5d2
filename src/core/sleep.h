#ifndef CORE_SLEEP_H
#define CORE_SLEEP_H

#include <unistd.h>

#include <chrono>

// The one way in which the tool waits. It calls usleep, so that tests can replace the clock.
inline void sleepFor(std::chrono::microseconds duration) {
    usleep(static_cast<useconds_t>(duration.count()));
}

#endif
