#ifndef ORVIN_IMAGE_FAILURE_H
#define ORVIN_IMAGE_FAILURE_H

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "common/one_line.h"

namespace orvin_image {

// Throws what the user must be told of the file.
[[noreturn]] inline void fail(const std::string& path, const std::string& reason) {
    throw std::runtime_error("'" + onOneLine(path) + "': " + reason);
}

// As above, with the reason that errno has.
[[noreturn]] inline void failWithErrno(const std::string& path, const char* what) {
    fail(path, std::string(what) + ": " + std::strerror(errno));
}

}  // namespace orvin_image

#endif
