// Firmware versions in dotted form: a decimal number for each byte, 1.3.0 for 0x00010300.
#ifndef ORVIN_IMAGE_VERSION_H
#define ORVIN_IMAGE_VERSION_H

#include <cstdint>
#include <optional>
#include <string>

namespace orvin_image {

// None unless the text has three or four parts, each from 0 to 255 without leading zeros.
std::optional<std::uint32_t> parseDotted(const std::string& text);

// Has three parts if the highest byte is 0.
std::string dotted(std::uint32_t version);

}  // namespace orvin_image

#endif
