// Firmware image files from the writer's side.
#ifndef ORVIN_IMAGE_IMAGE_FILE_H
#define ORVIN_IMAGE_IMAGE_FILE_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "common/firmware_checksum.h"
#include "common/firmware_descriptor.h"
#include "image/firmware_image.h"
#include "orvin-image/content.h"

namespace orvin_image {

using Bytes = std::vector<std::uint8_t>;

// What there is to know of content before its image can be written.
class Summary {
public:
    void add(const std::uint8_t* bytes, std::size_t length);

    std::uint32_t size() const { return contentSize; }
    std::uint16_t checksum() const { return sum.value(); }

    // Whether a simulated device would take the content for firmware of that target and version.
    bool isFirmware(std::uint32_t target, std::uint32_t version) const;

private:
    std::uint32_t contentSize = 0;  // bytes
    firmware::Checksum sum;
    std::array<std::uint8_t, firmware::Descriptor::kSize> start{};
};

Summary summarize(const Content& content);

// Of `header` these take the fields that describe the firmware; the sizes and the checksum follow
// from the content, which has at most kMaxContent bytes.

// Throws std::runtime_error, naming the file. A file that cannot be written whole is left as it
// was.
void writeImage(const std::string& path, const FirmwareImageHeader& header, const Content& content,
                const Summary& summary);

// The same in memory.
Bytes encodeImage(const FirmwareImageHeader& header, const Bytes& content);

// As `generatedContent`, in memory.
Bytes generateContent(std::uint32_t target, std::uint32_t version, std::size_t size);

}  // namespace orvin_image

#endif
