// The content of an image.
#ifndef ORVIN_IMAGE_CONTENT_H
#define ORVIN_IMAGE_CONTENT_H

#include <cstdint>
#include <string>
#include <vector>

namespace orvin_image {

using Bytes = std::vector<std::uint8_t>;

// Content that a simulated device accepts as firmware: a descriptor, then pseudo-random bytes that
// are the same for the same arguments. If `size` is less than a descriptor, the descriptor is cut
// off.
Bytes generateContent(std::uint32_t target, std::uint32_t version, std::size_t size);

// Reads the file. Throws std::runtime_error, which names the file, if it cannot be read, has more
// than `limit` bytes, is an image or is the output.
Bytes readContent(const std::string& path, std::uint32_t limit, const std::string& output);

// The content with a descriptor in front.
Bytes withDescriptor(std::uint32_t target, std::uint32_t version, Bytes content);

}  // namespace orvin_image

#endif
