#ifndef COMMON_FIRMWARE_TARGET_H
#define COMMON_FIRMWARE_TARGET_H

#include <cstdint>

// The processors of an Orvin that take firmware: the values of an image header's `device` field.
enum class FirmwareTarget : std::uint32_t {
    Arm = 0x200,
    Dsp = 0x201,
    BoosterArm = 0x202,
};

constexpr std::uint32_t codeOf(FirmwareTarget target) {
    return static_cast<std::uint32_t>(target);
}

// Whether the firmware is for an auxiliary processor. The tool installs it after the images for the
// main processor, and the device stays on the bus meanwhile. The device restarts after any other
// firmware.
constexpr bool isAuxiliaryTarget(std::uint32_t device) {
    return device == codeOf(FirmwareTarget::Dsp) || device == codeOf(FirmwareTarget::BoosterArm);
}

#endif
