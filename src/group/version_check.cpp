// Which devices need an image.

#include <optional>

#include "bus/device_versions.h"
#include "common/firmware_target.h"
#include "core/bus_session.h"
#include "core/console.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"

namespace {

enum class Need { Image, UpToDate, AnotherType };

// The version of the processor that an image for `device` is for; none for an unknown code.
std::optional<std::uint32_t> versionOfTarget(const DeviceVersions& versions, std::uint32_t device) {
    switch (static_cast<FirmwareTarget>(device)) {
    case FirmwareTarget::Arm:
        return versions.arm;
    case FirmwareTarget::Dsp:
        return versions.dsp;
    case FirmwareTarget::BoosterArm:
        return versions.boosterArm;
    }
    return std::nullopt;
}

// Any difference needs the image: an older one is installed over a newer version as well.
Need needOf(const DeviceVersions& versions, const FirmwareImageHeader& header) {
    const std::optional<std::uint32_t> current = versionOfTarget(versions, header.device);
    if (!current) {
        return Need::AnotherType;
    }
    return *current == header.version ? Need::UpToDate : Need::Image;
}

}  // namespace

void OrvinGroup::checkVersions(const FirmwareImage& image, std::list<std::string>& upToDate,
                               bool removeUnreachable, bool verbose) {
    ListLock lock(listMutex);
    orvins.keepIf([&](Orvin& orvin) REQUIRES(listMutex) {
        const char* const text = orvin.vanidText.c_str();
        DeviceVersions versions;
        if (!getVersion(*session, orvin.vanid, versions)) {
            printLine("orvin '%s' getVersion() failed", text);
            if (!removeUnreachable) {
                return true;
            }
            setRestartPending(orvin.vanidText, false);
            printLine("Removing Orvin %s because getVersion failed", text);
            return false;
        }
        const Need need = needOf(versions, image.getHeader());
        if (need == Need::Image) {
            return true;
        }
        setRestartPending(orvin.vanidText, false);
        if (need == Need::UpToDate) {
            upToDate.push_back(orvin.vanidText);
        }
        if (verbose) {
            printLine(need == Need::UpToDate ? "Orvin %s is already up to date."
                                             : "Orvin %s is another type.",
                      text);
        }
        return false;
    });
}
