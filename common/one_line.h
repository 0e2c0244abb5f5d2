#ifndef COMMON_ONE_LINE_H
#define COMMON_ONE_LINE_H

#include <string>

// The text with a question mark for every control character, so that a file's name or contents can
// neither begin a line of their own in an output nor steer a terminal.
std::string onOneLine(std::string text);

#endif
