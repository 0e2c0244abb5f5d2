#include "image/firmware_image.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "common/firmware_target.h"
#include "core/error_info.h"
#include "core/exit_status.h"
#include "core/transfer_result.h"

namespace {

// None for a file that is too long: offsets into an image are signed 32-bit numbers. Leaves the
// file at its beginning.
std::optional<std::uint32_t> measureFile(int file) {
    const off_t length = lseek(file, 0, SEEK_END);
    lseek(file, 0, SEEK_SET);
    if (length < 0 || length > std::numeric_limits<std::int32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(length);
}

}  // namespace

FirmwareImage::FirmwareImage(ErrorInfo* errorRecord) : error(errorRecord) {
    error->set(exit_status::kImageInvalid, "File not open");
}

void FirmwareImage::release() {
    file.close();
    fileSize = 0;
}

bool FirmwareImage::open(const std::string& path) {
    release();
    FileDescriptor opened(::open(path.c_str(), O_RDONLY));
    if (!opened.isOpen()) {
        error->set(exit_status::kImageNotOpened, strerror(errno));
        return false;
    }
    if (!acceptHeader(opened.get())) {
        return false;
    }
    lseek(opened.get(), static_cast<off_t>(header.headerSize), SEEK_SET);
    file = std::move(opened);
    return true;
}

bool FirmwareImage::acceptHeader(int opened) {
    const std::optional<std::uint32_t> length = measureFile(opened);
    const std::optional<ImageFileStart> start = readImageFileStart(opened);
    if (!start) {
        return false;
    }
    if (!start->hasMagic) {
        error->set(exit_status::kImageInvalid, "Invalid firmware image format");
        return false;
    }
    if (!length || std::uint64_t{start->header.headerSize} + start->header.contentSize != *length) {
        error->set(exit_status::kImageInvalid, "Invalid content size");
        return false;
    }
    header = start->header;
    fileSize = *length;
    return true;
}

ssize_t FirmwareImage::read(void* buffer, std::size_t length) {
    if (!file.isOpen()) {
        return -1;
    }
    const ssize_t count = ::read(file.get(), buffer, length);
    if (count < 0) {
        error->set(transfer_result::kImageReadFailed, strerror(errno));
        return -1;
    }
    return count;
}

bool FirmwareImage::seek(std::int32_t contentOffset) {
    const off_t position = static_cast<off_t>(header.headerSize) + contentOffset;
    return lseek(file.get(), position, SEEK_SET) >= 0;
}

void FirmwareImage::close() {
    release();
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
