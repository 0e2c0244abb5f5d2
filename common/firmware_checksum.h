#ifndef COMMON_FIRMWARE_CHECKSUM_H
#define COMMON_FIRMWARE_CHECKSUM_H

#include <cstddef>
#include <cstdint>

namespace firmware {

// The checksum that simulated devices compute over the received content and compare with the
// image's `contentChecksum`: CRC-16 with the polynomial 0x1021 and the initial value 0xffff.
class Checksum {
public:
    void add(const std::uint8_t* bytes, std::size_t length);
    std::uint16_t value() const { return sum; }

private:
    std::uint16_t sum = 0xffff;
};

}  // namespace firmware

#endif
