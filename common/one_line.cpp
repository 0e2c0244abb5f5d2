#include "common/one_line.h"

#include <algorithm>

std::string onOneLine(std::string text) {
    const auto isControl = [](char character) {
        return static_cast<unsigned char>(character) < ' ' || character == '\x7f';
    };
    std::replace_if(text.begin(), text.end(), isControl, '?');
    return text;
}
