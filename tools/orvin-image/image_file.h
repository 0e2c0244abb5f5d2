// Writes firmware image files.
#ifndef ORVIN_IMAGE_IMAGE_FILE_H
#define ORVIN_IMAGE_IMAGE_FILE_H

#include <cstdint>
#include <limits>

#include "image/image_header.h"
#include "orvin-image/content.h"

namespace orvin_image {

constexpr std::uint32_t kHeaderSize = 36;

// The upgrade tool accepts files of less than 2 GiB.
constexpr std::uint32_t kMaxContent = std::numeric_limits<std::int32_t>::max() - kHeaderSize;

// The bytes of an image file. Computes the sizes and the checksum from the content, and takes the
// other fields from `header`. The content must have at most kMaxContent bytes.
Bytes encodeImage(const FirmwareImageHeader& header, const Bytes& content);

}  // namespace orvin_image

#endif
