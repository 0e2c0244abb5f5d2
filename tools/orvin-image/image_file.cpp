#include "orvin-image/image_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#include "files/replace_file.h"
#include "firmware/checksum.h"
#include "firmware/descriptor.h"
#include "firmware/little_endian.h"

namespace orvin_image {

namespace {

constexpr std::uint32_t kHeaderSize = 36;

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw std::runtime_error("'" + path + "': " + what + ": " + std::strerror(errno));
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

Bytes addDescriptor(std::uint32_t target, std::uint32_t version, const Bytes& content) {
    const auto descriptor = firmware::Descriptor{target, version}.encode();
    Bytes bytes(descriptor.size() + content.size());
    std::copy(content.begin(), content.end(),
              std::copy(descriptor.begin(), descriptor.end(), bytes.begin()));
    return bytes;
}

bool isFirmware(const Bytes& content, std::uint32_t target, std::uint32_t version) {
    const auto descriptor = firmware::Descriptor::decode(content.data(), content.size());
    return descriptor && descriptor->target == target && descriptor->version == version;
}

Bytes encodeImage(const FirmwareImageHeader& header, const Bytes& content) {
    firmware::Checksum checksum;
    checksum.add(content.data(), content.size());

    Bytes bytes(kHeaderSize + content.size());
    std::copy_n("tevu", 4, bytes.begin());
    firmware::storeLittleEndian(&bytes[4], kHeaderSize);
    firmware::storeLittleEndian(&bytes[8], header.manufacturer);
    firmware::storeLittleEndian(&bytes[12], header.device);
    firmware::storeLittleEndian(&bytes[16], header.contentType);
    firmware::storeLittleEndian(&bytes[20], static_cast<std::uint32_t>(content.size()));
    firmware::storeLittleEndian(&bytes[24], checksum.value(), 2);
    firmware::storeLittleEndian(&bytes[32], header.version);
    std::copy(content.begin(), content.end(), bytes.begin() + kHeaderSize);
    return bytes;
}

Bytes readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        fail(path, "cannot be opened");
    }
    Bytes bytes{std::istreambuf_iterator<char>(file), {}};
    if (file.bad()) {
        fail(path, "cannot be read");
    }
    return bytes;
}

void writeFile(const std::string& path, const Bytes& bytes) {
    if (!replaceFile(path, {bytes.begin(), bytes.end()})) {
        fail(path, "cannot be written");
    }
}

}  // namespace orvin_image
