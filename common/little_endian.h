#ifndef COMMON_LITTLE_ENDIAN_H
#define COMMON_LITTLE_ENDIAN_H

#include <cstddef>
#include <cstdint>

// Stores the low `width` bytes of a number, least significant first.
inline void storeLittleEndian(std::uint8_t* out, std::uint32_t value, std::size_t width = 4) {
    for (std::size_t i = 0; i < width; ++i) {
        out[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

inline std::uint32_t loadLittleEndian(const std::uint8_t* bytes, std::size_t width = 4) {
    std::uint32_t value = 0;
    for (std::size_t i = width; i-- > 0;) {
        value = value << 8 | bytes[i];
    }
    return value;
}

#endif
