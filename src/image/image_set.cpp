#include "image/image_set.h"

#include <utility>

#include "common/firmware_target.h"
#include "core/console.h"
#include "core/error_info.h"
#include "core/run_config.h"
#include "image/firmware_image.h"
#include "transfer/upgrade_image.h"

namespace {

using VanidTexts = std::list<std::string>;

// The Orvins that the images have updated so far, by target.
struct UpdatedOrvins {
    VanidTexts arm;
    VanidTexts dsp;
    VanidTexts boosterArm;

    // Null for a code that is no target, and so for an unusable image, whose code is 0.
    VanidTexts* listFor(std::uint32_t target) {
        switch (static_cast<FirmwareTarget>(target)) {
        case FirmwareTarget::Arm:
            return &arm;
        case FirmwareTarget::Dsp:
            return &dsp;
        case FirmwareTarget::BoosterArm:
            return &boosterArm;
        }
        return nullptr;
    }

    int countDistinct() const {
        VanidTexts all = arm;
        all.insert(all.end(), dsp.begin(), dsp.end());
        all.insert(all.end(), boosterArm.begin(), boosterArm.end());
        all.sort();
        all.unique();
        return static_cast<int>(all.size());
    }
};

}  // namespace

std::uint32_t getImageTarget(const std::string& path) {
    if (path.empty()) {
        return 0;
    }
    ErrorInfo error;
    FirmwareImage image(&error);
    if (!image.open(path)) {
        printLine("Error in '%s': %s", path.c_str(), error.message.c_str());
        return 0;
    }
    const std::uint32_t target = image.getHeader().device;
    image.close();
    return target;
}

void orderImages(std::list<std::string>& images) {
    std::list<std::string> ordered;
    for (const std::string& path : images) {
        if (isAuxiliaryTarget(getImageTarget(path))) {
            ordered.push_back(path);
        } else {
            ordered.push_front(path);
        }
    }
    images = std::move(ordered);
}

int runImageSet(RunConfig& config, OrvinGroup& group) {
    VanidTexts upToDate;
    UpdatedOrvins updated;
    orderImages(config.imageFiles);
    for (const std::string& path : config.imageFiles) {
        printLine("Downloading image %s...", path.c_str());
        VanidTexts* updatedByTarget = updated.listFor(getImageTarget(path));
        if (updatedByTarget == nullptr) {
            continue;
        }
        const int result = upgradeImage(config, group, path, upToDate, *updatedByTarget);
        if (result != 0) {
            return result;
        }
        upToDate.clear();
    }
    return updated.countDistinct();
}
