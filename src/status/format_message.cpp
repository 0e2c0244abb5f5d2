#include "status/format_message.h"

#include <libintl.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>

std::string formatMessage(const char* format, ...) {
    char* buffer = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&buffer, format, arguments);
    va_end(arguments);
    if (length < 0) {
        // TRANSLATORS: stands in place of a message that could not be put together.
        return gettext("autosprintf/vasprintf error");
    }
    const std::unique_ptr<char, decltype(&std::free)> owner(buffer, std::free);
    return owner.get();
}
