#ifndef RECORDING_IDENTIFIER_H
#define RECORDING_IDENTIFIER_H

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "talm/vanid.h"

namespace recording {

inline bool sameIdentifier(const vanid_t& a, const vanid_t& b) {
    return std::equal(std::begin(a.bytes), std::end(a.bytes), std::begin(b.bytes));
}

// Whether it addresses all devices.
inline bool isBroadcast(const vanid_t& id) {
    return std::all_of(std::begin(id.bytes), std::end(id.bytes),
                       [](std::uint8_t byte) { return byte == 0xff; });
}

}  // namespace recording

#endif
