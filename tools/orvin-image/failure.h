#ifndef ORVIN_IMAGE_FAILURE_H
#define ORVIN_IMAGE_FAILURE_H

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "common/one_line.h"

namespace orvin_image {

// Throws std::runtime_error with a message for the user about the file.
[[noreturn]] inline void fail(const std::string& path, const std::string& reason) {
    throw std::runtime_error("'" + onOneLine(path) + "': " + reason);
}

// As above, with the reason in errno.
[[noreturn]] inline void failWithErrno(const std::string& path, const char* what) {
    fail(path, std::string(what) + ": " + std::strerror(errno));
}

}  // namespace orvin_image

#endif
