#ifndef ORVIN_IMAGE_CREATE_H
#define ORVIN_IMAGE_CREATE_H

#include <cstdint>
#include <optional>
#include <string>

#include "image/image_header.h"

namespace orvin_image {

struct CreateOptions {
    std::string output;
    FirmwareImageHeader header;         // without the sizes and the checksum
    std::string contentFile;            // empty: generate the content
    std::optional<std::uint32_t> size;  // bytes to generate
    bool addDescriptor = false;
};

// Throws std::runtime_error with a message for the user. On failure, an existing file is unchanged.
void create(const CreateOptions& options);

}  // namespace orvin_image

#endif
