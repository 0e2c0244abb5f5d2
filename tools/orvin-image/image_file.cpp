#include "orvin-image/image_file.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <random>

#include "common/firmware_checksum.h"
#include "common/firmware_descriptor.h"
#include "common/little_endian.h"
#include "orvin-image/failure.h"

namespace orvin_image {

namespace {

constexpr char kMagic[] = "tevu";

bool isImage(const Bytes& bytes) {
    return bytes.size() >= kHeaderSize && std::equal(kMagic, kMagic + 4, bytes.begin()) &&
           std::uint64_t{loadLittleEndian(&bytes[4])} + loadLittleEndian(&bytes[20]) ==
               bytes.size();
}

}  // namespace

Bytes generateContent(std::uint32_t target, std::uint32_t version, std::size_t size) {
    std::minstd_rand random(target ^ version);
    Bytes content(size);
    std::generate(content.begin(), content.end(),
                  [&random] { return static_cast<std::uint8_t>(random() >> 16); });
    const auto descriptor = firmware::Descriptor{target, version}.encode();
    std::copy_n(descriptor.begin(), std::min(size, descriptor.size()), content.begin());
    return content;
}

std::optional<std::uintmax_t> measureFile(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (error) {
        return std::nullopt;
    }
    if (std::filesystem::is_directory(status)) {
        fail(path, "is a directory");
    }
    if (!std::filesystem::is_regular_file(status)) {
        fail(path, "is not a regular file");
    }
    return std::filesystem::file_size(path);
}

Bytes readContent(const std::string& path, std::uint32_t limit, const std::string& output) {
    if (measureFile(path).value_or(0) > limit) {
        fail(path, "is too long: at most " + std::to_string(limit) +
                       " bytes go into an image, which has less than 2 GiB");
    }
    std::error_code noOutput;
    if (std::filesystem::equivalent(path, output, noOutput)) {
        fail(path, "is both the content and the image to write: give the image another name");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        failWithErrno(path, "cannot be opened");
    }
    Bytes content;
    try {
        content.assign(std::istreambuf_iterator<char>(file), {});
    } catch (const std::ios_base::failure& error) {
        fail(path, "cannot be read: " + error.code().message());
    }
    if (isImage(content)) {
        fail(path, "is an image already, not the content of one (see 'orvin-image show')");
    }
    return content;
}

Bytes encodeImage(const FirmwareImageHeader& header, const Bytes& content) {
    firmware::Checksum checksum;
    checksum.add(content.data(), content.size());
    Bytes bytes(kHeaderSize + content.size());
    std::copy_n(kMagic, 4, bytes.begin());
    storeLittleEndian(&bytes[4], kHeaderSize);
    storeLittleEndian(&bytes[8], header.manufacturer);
    storeLittleEndian(&bytes[12], header.device);
    storeLittleEndian(&bytes[16], header.contentType);
    storeLittleEndian(&bytes[20], static_cast<std::uint32_t>(content.size()));
    storeLittleEndian(&bytes[24], checksum.value(), 2);
    storeLittleEndian(&bytes[32], header.version);
    std::copy(content.begin(), content.end(), bytes.begin() + kHeaderSize);
    return bytes;
}

}  // namespace orvin_image
