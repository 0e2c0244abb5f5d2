#ifndef CORE_ERROR_INFO_H
#define CORE_ERROR_INFO_H

#include <cstdint>
#include <string>
#include <utility>

// Why an operation failed. Owned by the caller, written by the bus session start and by the image
// reader; the code becomes the exit status where the failure ends the run.
struct ErrorInfo {
    std::int32_t code = 0;
    std::string message;

    void set(std::int32_t newCode, std::string newMessage) {
        code = newCode;
        message = std::move(newMessage);
    }
};

#endif
