#ifndef IMAGE_FIRMWARE_IMAGE_H
#define IMAGE_FIRMWARE_IMAGE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/file_descriptor.h"
#include "image/image_header.h"

struct ErrorInfo;

// Reads one firmware image file; docs/image-format.md has its layout.
//
// Prints and throws nothing. The reason of the last failure stands in the caller's error record,
// which must outlive the reader; construction and `close` set it to "File not open", so that there
// always is a text. One thread only.
class FirmwareImage {
public:
    explicit FirmwareImage(ErrorInfo* errorRecord);

    // Opens the file, checks its header and stands at the first content byte. A file too short for
    // a header is refused without a change to the error record. A file that was open before is
    // closed, and after a failure nothing is open.
    [[nodiscard]] bool open(const std::string& path);

    // One read of at most `length` bytes from where the reader stands. Returns their number, 0 at
    // the end of the file, -1 on failure.
    [[nodiscard]] ssize_t read(void* buffer, std::size_t length);

    // Stands at `contentOffset` bytes from the first content byte. False when that cannot be done.
    bool seek(std::int32_t contentOffset);

    void close();

    // The header fields of the file that was opened last.
    const FirmwareImageHeader& getHeader() const { return header; }

    // "Pellix ARM", for example; empty for an unknown code.
    static std::string getTargetName(std::uint32_t device);

private:
    void release();
    bool acceptHeader(int opened);

    FileDescriptor file;
    FirmwareImageHeader header;
    std::uint32_t fileSize = 0;  // bytes; 0 while not open
    ErrorInfo* error;
};

#endif
