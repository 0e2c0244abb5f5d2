#include "common/firmware_descriptor.h"

#include <algorithm>

#include "common/little_endian.h"

namespace firmware {

namespace {

constexpr std::array<std::uint8_t, 4> kMark = {'O', 'F', 'W', 'D'};
constexpr std::size_t kTargetOffset = 4;
constexpr std::size_t kVersionOffset = 8;

}  // namespace

std::array<std::uint8_t, Descriptor::kSize> Descriptor::encode() const {
    std::array<std::uint8_t, kSize> bytes{};
    std::copy(kMark.begin(), kMark.end(), bytes.begin());
    storeLittleEndian(&bytes[kTargetOffset], target);
    storeLittleEndian(&bytes[kVersionOffset], version);
    return bytes;
}

std::optional<Descriptor> Descriptor::decode(const std::uint8_t* content, std::size_t length) {
    if (length < kSize || !std::equal(kMark.begin(), kMark.end(), content)) {
        return std::nullopt;
    }
    return Descriptor{loadLittleEndian(content + kTargetOffset),
                      loadLittleEndian(content + kVersionOffset)};
}

}  // namespace firmware
