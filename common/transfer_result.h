#ifndef COMMON_TRANSFER_RESULT_H
#define COMMON_TRANSFER_RESULT_H

#include <cstdint>

// A device's answers to an image packet that are not faults.
constexpr std::int32_t kPacketReceived = 0;
constexpr std::int32_t kGoBack = 17;  // send again from a packet on

#endif
