#include "sim/identifier.h"

#include <cctype>

namespace sim {

std::optional<vanid_t> parseIdentifier(const std::string& text) {
    vanid_t id{};
    constexpr std::size_t kFieldWidth = 3;
    if (text.size() != sizeof id.bytes * kFieldWidth - 1) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool separator = i % kFieldWidth == kFieldWidth - 1;
        if (separator ? text[i] != ':' : std::isxdigit(static_cast<unsigned char>(text[i])) == 0) {
            return std::nullopt;
        }
    }
    for (std::size_t k = 0; k < sizeof id.bytes; ++k) {
        id.bytes[k] =
            static_cast<std::uint8_t>(std::stoul(text.substr(k * kFieldWidth, 2), nullptr, 16));
    }
    return id;
}

std::string identifierText(const vanid_t& id) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : id.bytes) {
        text += text.empty() ? "" : ":";
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xf];
    }
    return text;
}

}  // namespace sim
