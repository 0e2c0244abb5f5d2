#ifndef COMMON_FIRMWARE_DESCRIPTOR_H
#define COMMON_FIRMWARE_DESCRIPTOR_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace firmware {

// What a simulated device finds at the start of the content that it installs, and the only place
// from which it learns what the firmware is for and which version it has (docs/image-format.md).
struct Descriptor {
    static constexpr std::size_t kSize = 12;

    std::uint32_t target = 0;
    std::uint32_t version = 0;

    std::array<std::uint8_t, kSize> encode() const;

    // None when the content does not begin with a descriptor.
    static std::optional<Descriptor> decode(const std::uint8_t* content, std::size_t length);
};

}  // namespace firmware

#endif
