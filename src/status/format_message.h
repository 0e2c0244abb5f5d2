#ifndef STATUS_FORMAT_MESSAGE_H
#define STATUS_FORMAT_MESSAGE_H

#include <string>

// printf-style formatting of a message that the caller has translated. The text ends at its first
// zero byte. A format that cannot be carried out gives a translated error text instead.
std::string formatMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
