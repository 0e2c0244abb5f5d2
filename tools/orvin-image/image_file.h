// Firmware image files from the writer's side.
#ifndef ORVIN_IMAGE_IMAGE_FILE_H
#define ORVIN_IMAGE_IMAGE_FILE_H

#include <cstdint>
#include <string>
#include <vector>

#include "image/firmware_image.h"

namespace orvin_image {

using Bytes = std::vector<std::uint8_t>;

// Content that a simulated device takes for firmware: a descriptor, then bytes that look random but
// are the same for the same arguments. Shorter than a descriptor it is just a part of one.
Bytes generateContent(std::uint32_t target, std::uint32_t version, std::size_t size);

// The content with a descriptor in front.
Bytes addDescriptor(std::uint32_t target, std::uint32_t version, const Bytes& content);

// Whether a simulated device would take the content for firmware of that target and version.
bool isFirmware(const Bytes& content, std::uint32_t target, std::uint32_t version);

// The whole file: header and content. Of `header` it takes the fields that describe the firmware;
// the sizes and the checksum follow from the content, which must have less than 2 GiB.
Bytes encodeImage(const FirmwareImageHeader& header, const Bytes& content);

// Both throw std::runtime_error, naming the file. A file that cannot be written whole is left as it
// was.
Bytes readFile(const std::string& path);
void writeFile(const std::string& path, const Bytes& bytes);

}  // namespace orvin_image

#endif
