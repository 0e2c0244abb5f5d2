#include "talm/vanid.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace {

// The identifier in words, compared without a call, so that the bus keeps up with 63 devices.
struct Words {
    explicit Words(const vanid_t& id) : last(id.bytes[16]) {
        std::memcpy(words, id.bytes, sizeof words);
    }

    std::uint64_t words[2];
    std::uint8_t last;
};

}  // namespace

int vanid_equal(const vanid_t* a, const vanid_t* b) {
    const Words left(*a);
    const Words right(*b);
    return left.last == right.last && left.words[0] == right.words[0] &&
           left.words[1] == right.words[1];
}

int vanid_is_broadcast(const vanid_t* id) {
    return std::all_of(std::begin(id->bytes), std::end(id->bytes),
                       [](std::uint8_t byte) { return byte == 0xff; });
}
