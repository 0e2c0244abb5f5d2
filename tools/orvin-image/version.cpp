#include "orvin-image/version.h"

#include <charconv>
#include <system_error>

namespace orvin_image {

std::optional<std::uint32_t> parseDotted(const std::string& text) {
    constexpr int kLeastParts = 3;
    constexpr int kMostParts = 4;
    const char* next = text.data();
    const char* const end = next + text.size();
    std::uint32_t version = 0;
    for (int parts = 1; parts <= kMostParts; ++parts) {
        std::uint8_t part = 0;
        const auto [after, error] = std::from_chars(next, end, part);
        if (error != std::errc() || (*next == '0' && after - next > 1)) {
            return std::nullopt;
        }
        version = version << 8U | part;
        if (after == end) {
            return parts >= kLeastParts ? std::optional(version) : std::nullopt;
        }
        if (*after != '.') {
            return std::nullopt;
        }
        next = after + 1;
    }
    return std::nullopt;
}

std::string dotted(std::uint32_t version) {
    std::string text = version >> 24U == 0 ? "" : std::to_string(version >> 24U) + '.';
    for (const unsigned shift : {16U, 8U, 0U}) {
        text += std::to_string(version >> shift & 0xffU) + (shift == 0 ? "" : ".");
    }
    return text;
}

}  // namespace orvin_image
