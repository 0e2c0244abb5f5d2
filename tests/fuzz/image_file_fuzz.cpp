// Reads any bytes as a firmware image file: the reader accepts it only if the sizes add up, and can
// then read it to its end.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "core/error_info.h"
#include "image/firmware_image.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int file = memfd_create("image", 0);
    if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size)) {
        std::abort();
    }
    ErrorInfo error;
    FirmwareImage image(&error);
    const bool accepted = image.open("/proc/self/fd/" + std::to_string(file));
    const FirmwareImageHeader& header = image.getHeader();
    std::uint64_t total = header.headerSize;
    char content[64];
    for (ssize_t count = 0; (count = image.read(content, sizeof content)) > 0;) {
        total += static_cast<std::uint64_t>(count);
    }
    const bool addsUp = total == size && total - header.headerSize == header.contentSize;
    if (accepted ? !addsUp || !image.seek(0) : error.message.empty()) {
        std::abort();
    }
    close(file);
    return 0;
}
