#include "common/vanid_text.h"

#include <cctype>

namespace {

constexpr std::size_t kFieldWidth = 3;  // two digits and a separator
constexpr std::size_t kTextLength = sizeof(vanid_t::bytes) * kFieldWidth - 1;

}  // namespace

std::string formatVanid(const vanid_t& id) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(kTextLength);
    for (const std::uint8_t byte : id.bytes) {
        if (!text.empty()) {
            text += ':';
        }
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xf];
    }
    return text;
}

std::optional<vanid_t> parseStrictVanid(const std::string& text) {
    if (text.size() != kTextLength) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool separator = i % kFieldWidth == kFieldWidth - 1;
        if (separator ? text[i] != ':' : std::isxdigit(static_cast<unsigned char>(text[i])) == 0) {
            return std::nullopt;
        }
    }
    vanid_t id{};
    for (std::size_t k = 0; k < sizeof id.bytes; ++k) {
        id.bytes[k] =
            static_cast<std::uint8_t>(std::stoul(text.substr(k * kFieldWidth, 2), nullptr, 16));
    }
    return id;
}
