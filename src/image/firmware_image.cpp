#include "image/firmware_image.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "core/error_info.h"
#include "core/exit_status.h"
#include "image/firmware_target.h"

namespace {

constexpr std::uint32_t kMagic = 0x75766574;  // "tevu", read as a little-endian number

// Reads the fixed header fields in file order. After the first short read the rest give 0.
class FieldReader {
public:
    explicit FieldReader(int file) : file_(file) {}

    std::uint16_t read16() { return static_cast<std::uint16_t>(readField(2)); }
    std::uint32_t read32() { return readField(4); }
    bool complete() const { return complete_; }

private:
    std::uint32_t readField(std::size_t width) {
        std::uint8_t bytes[4] = {};
        complete_ = complete_ && ::read(file_, bytes, width) == static_cast<ssize_t>(width);
        if (!complete_) {
            return 0;
        }
        std::uint32_t value = 0;
        for (std::size_t i = width; i-- > 0;) {
            value = value << 8 | bytes[i];
        }
        return value;
    }

    int file_;
    bool complete_ = true;
};

}  // namespace

FirmwareImage::FirmwareImage(ErrorInfo* errorRecord) : error(errorRecord) {
    error->set(exit_status::kImageInvalid, "File not open");
}

FirmwareImage::~FirmwareImage() {
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

bool FirmwareImage::open(const std::string& path) {
    refusedHeader.reset();
    descriptor = ::open(path.c_str(), O_RDONLY);
    if (descriptor < 0) {
        error->set(exit_status::kImageNotOpened, strerror(errno));
        return false;
    }
    if (!readAndCheckHeader()) {
        ::close(descriptor);
        descriptor = -1;
        fileSize = 0;
        return false;
    }
    lseek(descriptor, static_cast<off_t>(header.headerSize), SEEK_SET);
    isOpen = true;
    return true;
}

// False for a length that is none or too long: offsets into an image are signed 32-bit numbers.
bool FirmwareImage::measureFile() {
    const off_t length = lseek(descriptor, 0, SEEK_END);
    lseek(descriptor, 0, SEEK_SET);
    const bool usable = length >= 0 && length <= std::numeric_limits<std::int32_t>::max();
    fileSize = usable ? static_cast<std::uint32_t>(length) : 0;
    return usable;
}

bool FirmwareImage::readAndCheckHeader() {
    const bool measured = measureFile();
    FieldReader fields(descriptor);
    FirmwareImageHeader found;
    const std::uint32_t magic = fields.read32();
    found.headerSize = fields.read32();
    found.manufacturer = fields.read32();
    found.device = fields.read32();
    found.contentType = fields.read32();
    found.contentSize = fields.read32();
    found.contentChecksum = fields.read16();
    fields.read16();  // reserved
    fields.read32();  // reserved
    found.version = fields.read32();
    if (!fields.complete()) {
        return false;
    }
    refusedHeader = found;
    if (magic != kMagic) {
        error->set(exit_status::kImageInvalid, "Invalid firmware image format");
        return false;
    }
    if (!measured || std::uint64_t{found.headerSize} + found.contentSize != fileSize) {
        error->set(exit_status::kImageInvalid, "Invalid content size");
        return false;
    }
    refusedHeader.reset();
    header = found;
    return true;
}

ssize_t FirmwareImage::read(void* buffer, std::size_t length) {
    if (!isOpen) {
        return -1;
    }
    const ssize_t count = ::read(descriptor, buffer, length);
    if (count < 0) {
        error->set(exit_status::kImageReadFailed, strerror(errno));
        return -1;
    }
    return count;
}

bool FirmwareImage::seek(std::int32_t contentOffset) {
    const off_t position = static_cast<off_t>(header.headerSize) + contentOffset;
    return lseek(descriptor, position, SEEK_SET) >= 0;
}

void FirmwareImage::close() {
    ::close(descriptor);
    isOpen = false;
    descriptor = -1;
    fileSize = 0;
    error->set(exit_status::kImageInvalid, "File not open");
}

std::string FirmwareImage::getTargetName(std::uint32_t device) {
    switch (static_cast<FirmwareTarget>(device)) {
    case FirmwareTarget::Arm:
        return "Pellix ARM";
    case FirmwareTarget::Dsp:
        return "Pellix DSP";
    case FirmwareTarget::BoosterArm:
        return "Pellix Booster ARM";
    }
    return {};
}
