#include "orvin-image/show.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/file_descriptor.h"
#include "common/firmware_checksum.h"
#include "core/error_info.h"
#include "image/firmware_image.h"
#include "orvin-image/failure.h"
#include "orvin-image/image_file.h"

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FirmwareImageHeader, headerSize, manufacturer, device,
                                   contentType, contentSize, contentChecksum, version)

namespace orvin_image {

namespace {

// What is known about an image file.
struct Inspection {
    std::string path;
    std::optional<std::uintmax_t> fileSize;
    std::optional<FirmwareImageHeader> header;  // none if the header is incomplete
    std::optional<std::string> refusal;         // error text of the upgrade tool; none: accepted
    std::optional<std::uint16_t> checksum;      // of the content of an accepted image

    bool sizesAddUp() const {
        return header && fileSize &&
               std::uint64_t{header->headerSize} + header->contentSize == *fileSize;
    }
};

// None if the file is too short or cannot be opened. Throws if it cannot be read, which the upgrade
// tool reports like a short file.
std::optional<FirmwareImageHeader> readHeader(const std::string& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY));
    if (!file.isOpen()) {
        return std::nullopt;
    }
    errno = 0;
    const std::optional<ImageFileStart> start = readImageFileStart(file.get());
    if (!start && errno != 0) {
        failWithErrno(path, "cannot be read");
    }
    return start ? std::optional(start->header) : std::nullopt;
}

std::uint16_t sumContent(FirmwareImage& image, const std::string& path, const ErrorInfo& error) {
    firmware::Checksum checksum;
    std::array<std::uint8_t, 65536> buffer{};
    ssize_t count = 0;
    while ((count = image.read(buffer.data(), buffer.size())) > 0) {
        checksum.add(buffer.data(), static_cast<std::size_t>(count));
    }
    if (count < 0) {
        fail(path, "cannot be read: " + error.message);
    }
    return checksum.value();
}

Inspection inspect(const std::string& path) {
    Inspection found;
    found.path = path;
    found.fileSize = measureFile(path);
    found.header = readHeader(path);
    ErrorInfo reason;
    FirmwareImage image(&reason);
    if (image.open(path)) {
        found.checksum = sumContent(image, path, reason);
    } else {
        found.refusal = reason.message;
    }
    return found;
}

// A number for each byte; three if the highest byte is 0.
std::string dotted(std::uint32_t version) {
    std::string text = version >> 24U == 0 ? "" : std::to_string(version >> 24U) + '.';
    for (const unsigned shift : {16U, 8U, 0U}) {
        text += std::to_string(version >> shift & 0xffU) + (shift == 0 ? "" : ".");
    }
    return text;
}

std::string targetText(std::uint32_t device) {
    const std::string name = FirmwareImage::getTargetName(device);
    return name.empty() ? "unknown: the upgrade tool skips the image" : name;
}

void printHeader(const Inspection& found) {
    const FirmwareImageHeader& header = *found.header;
    printf("headerSize       %u\n", header.headerSize);
    printf("manufacturer     0x%x\n", header.manufacturer);
    printf("device           0x%x (%s)\n", header.device, targetText(header.device).c_str());
    printf("contentType      0x%x\n", header.contentType);
    printf("contentSize      %u\n", header.contentSize);
    printf("contentChecksum  0x%04x", unsigned{header.contentChecksum});
    if (found.checksum) {
        printf(
            *found.checksum == header.contentChecksum ? " (right)" : " (computed checksum: 0x%04x)",
            unsigned{*found.checksum});
    }
    printf("\nversion          0x%08x (%s)\n", header.version, dotted(header.version).c_str());
    printf("sizes            %u + %u = %ju bytes, the file has %ju: %s\n", header.headerSize,
           header.contentSize, std::uintmax_t{header.headerSize} + header.contentSize,
           found.fileSize.value_or(0), found.sizesAddUp() ? "they add up" : "they do not add up");
}

void printText(const Inspection& found) {
    const std::string path = onOneLine(found.path);
    printf("file             %s\n", path.c_str());
    if (found.header) {
        printHeader(found);
    }
    std::fflush(stdout);  // the error comes last
    if (found.refusal) {
        fprintf(stderr, "Error in '%s': %s\n", path.c_str(), found.refusal->c_str());
    }
    const std::uintmax_t size = found.fileSize.value_or(kHeaderSize);
    if (size < kHeaderSize || size > kMaxContent + kHeaderSize) {
        fprintf(stderr, "note: the file has %ju bytes, an image has %u to %u\n", size, kHeaderSize,
                kMaxContent + kHeaderSize);
    }
}

template <typename Value>
nlohmann::json orNull(const std::optional<Value>& value) {
    return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
}

void printJson(const Inspection& found) {
    nlohmann::json json = {{"file", found.path},
                           {"fileSize", orNull(found.fileSize)},
                           {"accepted", !found.refusal},
                           {"refusal", orNull(found.refusal)},
                           {"header", orNull(found.header)}};
    if (found.header) {
        json["targetName"] = FirmwareImage::getTargetName(found.header->device);
        json["sizesAddUp"] = found.sizesAddUp();
        json["computedChecksum"] = orNull(found.checksum);
    }
    // A path may be invalid UTF-8.
    std::cout << json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

}  // namespace

int show(const std::string& path, bool asJson) {
    const Inspection found = inspect(path);
    if (asJson) {
        printJson(found);
    } else {
        printText(found);
    }
    return found.refusal ? 1 : 0;
}

}  // namespace orvin_image
