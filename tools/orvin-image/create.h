#ifndef ORVIN_IMAGE_CREATE_H
#define ORVIN_IMAGE_CREATE_H

#include <cstdint>
#include <optional>
#include <string>

namespace orvin_image {

struct CreateOptions {
    std::string output;
    std::uint32_t target = 0;
    std::uint32_t version = 0;
    std::uint32_t manufacturer = 0;
    std::uint32_t contentType = 0;
    std::string contentFile;            // empty: generate the content
    std::optional<std::uint32_t> size;  // bytes to generate
    bool addDescriptor = false;
};

// Throws std::runtime_error with a message for the user. On failure, an existing file is unchanged.
void create(const CreateOptions& options);

}  // namespace orvin_image

#endif
