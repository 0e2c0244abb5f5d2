#include "orvin-image/image_file.h"

#include <algorithm>

#include "common/little_endian.h"
#include "common/replace_file.h"
#include "orvin-image/failure.h"

namespace orvin_image {

namespace {

Bytes encodeHeader(const FirmwareImageHeader& header, const Summary& content) {
    Bytes bytes(kHeaderSize);
    std::copy_n("tevu", 4, bytes.begin());
    storeLittleEndian(&bytes[4], kHeaderSize);
    storeLittleEndian(&bytes[8], header.manufacturer);
    storeLittleEndian(&bytes[12], header.device);
    storeLittleEndian(&bytes[16], header.contentType);
    storeLittleEndian(&bytes[20], content.size());
    storeLittleEndian(&bytes[24], content.checksum(), 2);
    storeLittleEndian(&bytes[32], header.version);
    return bytes;
}

}  // namespace

void Summary::add(const std::uint8_t* bytes, std::size_t length) {
    if (contentSize < start.size()) {
        std::copy_n(bytes, std::min(length, start.size() - contentSize),
                    start.begin() + contentSize);
    }
    sum.add(bytes, length);
    contentSize += static_cast<std::uint32_t>(length);
}

bool Summary::isFirmware(std::uint32_t target, std::uint32_t version) const {
    const auto descriptor = firmware::Descriptor::decode(
        start.data(), std::min<std::size_t>(contentSize, start.size()));
    return descriptor && descriptor->target == target && descriptor->version == version;
}

Summary summarize(const Content& content) {
    Summary summary;
    content([&summary](const std::uint8_t* bytes, std::size_t length) {
        summary.add(bytes, length);
        return true;
    });
    return summary;
}

void writeImage(const std::string& path, const FirmwareImageHeader& header, const Content& content,
                const Summary& summary) {
    const Bytes start = encodeHeader(header, summary);
    const bool written = replaceFile(path, [&](const WriteBytes& write) {
        Summary copied;
        const bool complete = write(start.data(), start.size()) &&
                              content([&](const std::uint8_t* bytes, std::size_t length) {
                                  copied.add(bytes, length);
                                  return write(bytes, length);
                              });
        if (complete &&
            (copied.size() != summary.size() || copied.checksum() != summary.checksum())) {
            fail(path, "not written: the content changed while it was read");
        }
        return complete;
    });
    if (!written) {
        failWithErrno(path, "cannot be written");
    }
}

Bytes encodeImage(const FirmwareImageHeader& header, const Bytes& content) {
    Summary summary;
    summary.add(content.data(), content.size());
    Bytes bytes = encodeHeader(header, summary);
    bytes.insert(bytes.end(), content.begin(), content.end());
    return bytes;
}

Bytes generateContent(std::uint32_t target, std::uint32_t version, std::size_t size) {
    Bytes content;
    generatedContent(target, version, size)([&](const std::uint8_t* bytes, std::size_t length) {
        content.insert(content.end(), bytes, bytes + length);
        return true;
    });
    return content;
}

}  // namespace orvin_image
