#ifndef COMMON_FIRMWARE_DESCRIPTOR_H
#define COMMON_FIRMWARE_DESCRIPTOR_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace firmware {

// The start of the content for a simulated device. The device reads target and version of the
// firmware only from here (docs/image-format.md).
struct Descriptor {
    static constexpr std::size_t kSize = 12;

    std::uint32_t target = 0;
    std::uint32_t version = 0;

    std::array<std::uint8_t, kSize> encode() const;

    // None if the content does not begin with a descriptor.
    static std::optional<Descriptor> decode(const std::uint8_t* content, std::size_t length);
};

}  // namespace firmware

#endif
