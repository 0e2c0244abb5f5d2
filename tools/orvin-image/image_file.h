// Makes the content of an image and the image file, and reads the files for both.
#ifndef ORVIN_IMAGE_IMAGE_FILE_H
#define ORVIN_IMAGE_IMAGE_FILE_H

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "image/image_header.h"

namespace orvin_image {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kHeaderSize = 36;

// The upgrade tool accepts files of less than 2 GiB.
constexpr std::uint32_t kMaxContent = std::numeric_limits<std::int32_t>::max() - kHeaderSize;

// Content that a simulated device accepts as firmware: a descriptor, then pseudo-random bytes that
// are the same for the same arguments. If `size` is less than a descriptor, the descriptor is cut
// off.
Bytes generateContent(std::uint32_t target, std::uint32_t version, std::size_t size);

// The length of the file; none if it does not exist. Throws std::runtime_error, which names the
// file, if it would block or has no length.
std::optional<std::uintmax_t> measureFile(const std::string& path);

// Reads the file. Throws std::runtime_error, which names the file, if it cannot be read, has more
// than `limit` bytes, is an image or is the output.
Bytes readContent(const std::string& path, std::uint32_t limit, const std::string& output);

// The bytes of an image file. Computes the sizes and the checksum from the content, and takes the
// other fields from `header`. The content must have at most kMaxContent bytes.
Bytes encodeImage(const FirmwareImageHeader& header, const Bytes& content);

}  // namespace orvin_image

#endif
