#include "image/image_header.h"

#include <unistd.h>

#include <cstddef>

#include "common/little_endian.h"

namespace {

constexpr std::uint32_t kMagic = 0x75766574;  // "tevu", read as a little-endian number

// Reads little-endian numbers. After a short read, that field and all others give 0.
class FieldReader {
public:
    explicit FieldReader(int descriptor) : file(descriptor) {}

    std::uint16_t read16() { return static_cast<std::uint16_t>(readField(2)); }
    std::uint32_t read32() { return readField(4); }
    bool isComplete() const { return complete; }

private:
    std::uint32_t readField(std::size_t width) {
        std::uint8_t bytes[4] = {};
        complete = complete && ::read(file, bytes, width) == static_cast<ssize_t>(width);
        if (!complete) {
            return 0;
        }
        return loadLittleEndian(bytes, width);
    }

    int file;
    bool complete = true;
};

}  // namespace

std::optional<ImageFileStart> readImageFileStart(int file) {
    FieldReader fields(file);
    ImageFileStart start;
    start.hasMagic = fields.read32() == kMagic;
    start.header.headerSize = fields.read32();
    start.header.manufacturer = fields.read32();
    start.header.device = fields.read32();
    start.header.contentType = fields.read32();
    start.header.contentSize = fields.read32();
    start.header.contentChecksum = fields.read16();
    fields.read16();  // reserved
    fields.read32();  // reserved
    start.header.version = fields.read32();
    if (!fields.isComplete()) {
        return std::nullopt;
    }
    return start;
}
