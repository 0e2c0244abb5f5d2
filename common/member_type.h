#ifndef COMMON_MEMBER_TYPE_H
#define COMMON_MEMBER_TYPE_H

#include <cstdint>

// The type codes of bus members that the programs distinguish.
constexpr std::uint8_t kBusMasterType = 16;
constexpr std::uint8_t kOrvinType = 64;

#endif
