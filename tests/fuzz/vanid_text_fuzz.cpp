// Any text as an identifier: what it is taken for has a text of its own that means the same.

#include <cstdlib>
#include <cstring>
#include <string>

#include "bus/vanid_text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    vanid_t id{};
    vanid_t again{};
    if (parseVanid(id, text) != (size == 50) || !parseVanid(again, formatVanid(id)) ||
        std::memcmp(&id, &again, sizeof id) != 0) {
        std::abort();
    }
    return 0;
}
