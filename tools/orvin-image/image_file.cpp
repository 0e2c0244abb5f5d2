#include "orvin-image/image_file.h"

#include <algorithm>

#include "common/firmware_checksum.h"
#include "common/little_endian.h"

namespace orvin_image {

Bytes encodeImage(const FirmwareImageHeader& header, const Bytes& content) {
    firmware::Checksum checksum;
    checksum.add(content.data(), content.size());
    Bytes bytes(kHeaderSize + content.size());
    std::copy_n("tevu", 4, bytes.begin());
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
