#include "orvin-image/show.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/file_descriptor.h"
#include "common/firmware_checksum.h"
#include "core/error_info.h"
#include "image/firmware_image.h"
#include "orvin-image/failure.h"
#include "orvin-image/image_file.h"
#include "orvin-image/version.h"

namespace orvin_image {

namespace {

// What is known about an image file.
struct Inspection {
    std::string path;
    std::optional<std::uintmax_t> fileSize;
    std::optional<FirmwareImageHeader> header;  // none if the header is incomplete
    std::string refusal;                        // error text of the upgrade tool; empty: accepted
    std::optional<std::uint16_t> checksum;      // of the content of an accepted image

    bool sizesAddUp() const {
        return header && fileSize &&
               std::uint64_t{header->headerSize} + header->contentSize == *fileSize;
    }
};

// The length of the file; none if it does not exist. Throws for a file that would block or has no
// length.
std::optional<std::uintmax_t> measureFile(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (error) {
        return std::nullopt;
    }
    if (status.type() == std::filesystem::file_type::directory) {
        fail(path, "is a directory");
    }
    if (status.type() != std::filesystem::file_type::regular) {
        fail(path, "is not a regular file");
    }
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    return error ? std::nullopt : std::optional(size);
}

// The header of a file that the reader refuses; none if the file is too short or cannot be opened.
// Throws if the file cannot be read, which the reader reports like a short file.
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
    ErrorInfo reason;
    FirmwareImage image(&reason);
    if (!image.open(path)) {
        found.header = readHeader(path);
        found.refusal = reason.message;
        return found;
    }
    found.header = image.getHeader();
    found.checksum = sumContent(image, path, reason);
    image.close();
    return found;
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
    printf("sizes            %u + %u = %llu bytes, the file has %llu: %s\n", header.headerSize,
           header.contentSize,
           static_cast<unsigned long long>(header.headerSize) + header.contentSize,
           static_cast<unsigned long long>(found.fileSize.value_or(0)),
           found.sizesAddUp() ? "they add up" : "they do not add up");
}

void printText(const Inspection& found) {
    const std::string path = onOneLine(found.path);
    printf("file             %s\n", path.c_str());
    if (found.header) {
        printHeader(found);
    }
    std::fflush(stdout);  // the error comes last
    if (!found.refusal.empty()) {
        fprintf(stderr, "Error in '%s': %s\n", path.c_str(), found.refusal.c_str());
    }
    if (found.fileSize.value_or(0) > kMaxContent + kHeaderSize) {
        fprintf(stderr, "note: the file has %llu bytes, an image has at most %u\n",
                static_cast<unsigned long long>(*found.fileSize), kMaxContent + kHeaderSize);
    }
    if (found.fileSize.value_or(kHeaderSize) < kHeaderSize) {
        fprintf(stderr, "note: the file has %llu bytes, a header has %u\n",
                static_cast<unsigned long long>(*found.fileSize), kHeaderSize);
    }
}

template <typename Value>
nlohmann::ordered_json orNull(const std::optional<Value>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json headerAsJson(const FirmwareImageHeader& header) {
    return {{"headerSize", header.headerSize},   {"manufacturer", header.manufacturer},
            {"device", header.device},           {"contentType", header.contentType},
            {"contentSize", header.contentSize}, {"contentChecksum", header.contentChecksum},
            {"version", header.version}};
}

void printJson(const Inspection& found) {
    nlohmann::ordered_json json;
    json["file"] = found.path;
    json["fileSize"] = orNull(found.fileSize);
    json["accepted"] = found.refusal.empty();
    json["refusal"] = nullptr;
    if (!found.refusal.empty()) {
        json["refusal"] = found.refusal;
    }
    json["header"] = nullptr;
    if (found.header) {
        json["header"] = headerAsJson(*found.header);
        json["targetName"] = FirmwareImage::getTargetName(found.header->device);
        json["sizesAddUp"] = found.sizesAddUp();
        json["computedChecksum"] = orNull(found.checksum);
    }
    // A path may be invalid UTF-8.
    std::cout << json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
              << std::endl;
}

}  // namespace

int show(const std::string& path, bool asJson) {
    const Inspection found = inspect(path);
    if (asJson) {
        printJson(found);
    } else {
        printText(found);
    }
    return found.refusal.empty() ? 0 : 1;
}

}  // namespace orvin_image
