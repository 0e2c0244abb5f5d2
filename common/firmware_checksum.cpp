#include "common/firmware_checksum.h"

#include <boost/crc.hpp>

void firmware::Checksum::add(const std::uint8_t* bytes, std::size_t length) {
    boost::crc_optimal<16, 0x1021, 0, 0, false, false> crc(sum);
    crc.process_bytes(bytes, length);
    sum = crc.checksum();
}
