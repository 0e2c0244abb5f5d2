#include "bus/vanid_text.h"

#include <cstddef>
#include <cstdlib>

namespace {

constexpr std::size_t kVanidBytes = sizeof(vanid_t::bytes);
constexpr std::size_t kFieldWidth = 3;  // two digits and a separator
constexpr std::size_t kTextLength = kVanidBytes * kFieldWidth - 1;

}  // namespace

bool parseVanid(vanid_t& out, const std::string& text) {
    if (text.size() != kTextLength) {
        return false;
    }
    for (std::size_t k = 0; k < kVanidBytes; ++k) {
        // A copy of the two characters, so that the conversion cannot run on into what follows.
        const char field[] = {text[kFieldWidth * k], text[kFieldWidth * k + 1], '\0'};
        out.bytes[k] = static_cast<std::uint8_t>(std::strtol(field, nullptr, 16));
    }
    return true;
}
