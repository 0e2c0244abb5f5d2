#ifndef PERFORMANCE_FLOOR_H
#define PERFORMANCE_FLOOR_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

class FirmwareImage;
class MeasuredBus;

// The barest transfer that could do it, which the tool is measured against: the same packets from
// memory, the same polls, and nothing else.
class Floor {
public:
    // Reads the image's content and announces it to all devices of `bus`, which has to live longer.
    // Throws std::runtime_error.
    Floor(const MeasuredBus& bus, FirmwareImage& image);
    ~Floor();
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    // Throws std::runtime_error when the bus refuses a packet; waits for ever when one is lost.
    void send();

private:
    const MeasuredBus& bus_;
    std::vector<std::uint8_t> content_;
    std::atomic<std::uint64_t> acknowledged_{0};  // by the library's threads
};

#endif
