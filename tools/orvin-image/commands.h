#ifndef ORVIN_IMAGE_COMMANDS_H
#define ORVIN_IMAGE_COMMANDS_H

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

// Both return the exit status. Throw std::runtime_error for what the user must be told.
int create(const CreateOptions& options);

// 1 when the upgrade tool would refuse the image.
int show(const std::string& path, bool asJson);

}  // namespace orvin_image

#endif
