#include "talm/vanid.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

int vanid_equal(const vanid_t* a, const vanid_t* b) {
    return std::memcmp(a->bytes, b->bytes, sizeof a->bytes) == 0 ? 1 : 0;
}

int vanid_is_broadcast(const vanid_t* id) {
    return std::all_of(std::begin(id->bytes), std::end(id->bytes),
                       [](std::uint8_t byte) { return byte == 0xff; });
}
