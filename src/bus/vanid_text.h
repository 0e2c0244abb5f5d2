// The text form of a device identifier: 17 fields of two hexadecimal digits, one per byte, with one
// separator between them.
#ifndef BUS_VANID_TEXT_H
#define BUS_VANID_TEXT_H

#include <string>

#include "talm/vanid.h"

// False, with `out` unchanged, only when the text is not 50 characters long. Separators are not
// looked at, and a field that is no number gives a byte all the same, usually 0.
bool parseVanid(vanid_t& out, const std::string& text);

// 50 characters: lower-case digits, joined by ':'.
std::string formatVanid(const vanid_t& id);

#endif
