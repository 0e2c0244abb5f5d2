// What goes into an image.
#ifndef ORVIN_IMAGE_CONTENT_H
#define ORVIN_IMAGE_CONTENT_H

#include <cstdint>
#include <string>
#include <vector>

namespace orvin_image {

using Bytes = std::vector<std::uint8_t>;

// Content that a simulated device takes for firmware: a descriptor, then bytes that look random but
// are the same for the same arguments. Shorter than a descriptor it is just a part of one.
Bytes generateContent(std::uint32_t target, std::uint32_t version, std::size_t size);

// What the file holds. Throws std::runtime_error, naming the file, when it cannot be read, has more
// than `limit` bytes, is an image already or is the output.
Bytes readContent(const std::string& path, std::uint32_t limit, const std::string& output);

// The content with a descriptor in front.
Bytes withDescriptor(std::uint32_t target, std::uint32_t version, Bytes content);

}  // namespace orvin_image

#endif
