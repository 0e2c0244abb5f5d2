// Replaces usleep: a pause takes a tenth of its time. Polls keep their length, and so do the
// timeouts of packets.

#include <unistd.h>

#include <chrono>
#include <thread>

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int usleep(useconds_t microseconds) {
    const std::chrono::microseconds wait(microseconds);
    std::this_thread::sleep_for(wait < std::chrono::milliseconds(500) ? wait : wait / 10);
    return 0;
}
