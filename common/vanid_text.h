// Device identifiers as text, and their comparison without libvanid.
#ifndef COMMON_VANID_TEXT_H
#define COMMON_VANID_TEXT_H

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>

#include "talm/vanid.h"

// 50 characters: 17 fields of two lower-case hexadecimal digits, joined by ':'.
std::string formatVanid(const vanid_t& id);

// None for any other text; upper-case digits are accepted.
std::optional<vanid_t> parseStrictVanid(const std::string& text);

inline bool isSameVanid(const vanid_t& a, const vanid_t& b) {
    return std::equal(std::begin(a.bytes), std::end(a.bytes), std::begin(b.bytes));
}

// Whether the identifier addresses all devices.
inline bool isBroadcastVanid(const vanid_t& id) {
    return std::all_of(std::begin(id.bytes), std::end(id.bytes),
                       [](std::uint8_t byte) { return byte == 0xff; });
}

#endif
