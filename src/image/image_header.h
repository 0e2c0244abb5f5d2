#ifndef IMAGE_IMAGE_HEADER_H
#define IMAGE_IMAGE_HEADER_H

#include <cstdint>
#include <optional>

// The header fields of a firmware image, as read from the file; docs/image-format.md has them.
struct FirmwareImageHeader {
    std::uint32_t headerSize = 0;  // offset of the first content byte
    std::uint32_t manufacturer = 0;
    std::uint32_t device = 0;  // a FirmwareTarget, or a code unknown to this tool
    std::uint32_t contentType = 0;
    std::uint32_t contentSize = 0;  // bytes
    std::uint16_t contentChecksum = 0;
    std::uint32_t version = 0;
};

// What stands at the beginning of a file, be it an image or not.
struct ImageFileStart {
    bool hasMagic = false;
    FirmwareImageHeader header;
};

// Reads from where the file stands, with one read call for each field. None when it is too short or
// cannot be read.
std::optional<ImageFileStart> readImageFileStart(int file);

#endif
