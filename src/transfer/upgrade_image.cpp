#include "transfer/upgrade_image.h"

#include <libintl.h>

#include "core/console.h"
#include "core/error_info.h"
#include "core/exit_status.h"
#include "core/run_config.h"
#include "group/orvin_group.h"
#include "image/firmware_image.h"
#include "status/format_message.h"
#include "status/message_writer.h"
#include "transfer/transfer_session.h"

namespace {

using VanidTexts = std::list<std::string>;

constexpr int kAttempts = 2;

const char* orvinNoun(int count) {
    return count == 1 ? "Orvin" : "Orvins";
}

void printHeader(const FirmwareImageHeader& header) {
    printLine("HS: %d, Man: %x, Dev: %d, CT: %x, CS: %x, CC: %x, V: %08x",
              static_cast<int>(header.headerSize), header.manufacturer,
              static_cast<int>(header.device), header.contentType, header.contentSize,
              unsigned{header.contentChecksum}, header.version);
}

void printVanids(const VanidTexts& vanidTexts) {
    for (const std::string& text : vanidTexts) {
        printLine("  %s", text.c_str());
    }
}

void printDevices(OrvinGroup& group) {
    VanidTexts vanidTexts;
    group.getVanidTexts(vanidTexts);
    printVanids(vanidTexts);
}

// Leaves in the device list only the devices that need the image; with -f, all.
void selectOrvins(const RunConfig& config, OrvinGroup& group, const FirmwareImage& image,
                  VanidTexts& upToDate) {
    if (!config.force) {
        group.checkVersions(image, upToDate, OrvinGroup::kKeepUnreachable, OrvinGroup::kVerbose);
    }
    if (!config.debug) {
        return;
    }
    for (const std::string& text : upToDate) {
        printLine("orvin '%s' already up to date", text.c_str());
    }
}

void transferAndSummarize(const RunConfig& config, OrvinGroup& group, FirmwareImage& image,
                          VanidTexts& updated) {
    const std::time_t start = std::time(nullptr);
    const bool transferred = config.pretend || transferFirmware(group, image);
    const std::time_t end = std::time(nullptr);
    if (transferred) {
        printSummary(group, start, end, updated);
    }
}

void waitForOrvins(OrvinGroup& group) {
    const int count = group.count();
    if (count > 0) {
        printLine("\nWaiting for %d %s to rejoin...\n", count, orvinNoun(count));
    }
    if (!group.waitForRejoin()) {
        printLine("Warning: not all of the updated Orvins are back online!");
    }
}

void announceRetry(OrvinGroup& group, const std::string& targetName) {
    MessageWriter::instance()->write(formatMessage(
        // TRANSLATORS: %s is the processor that the firmware is for, such as "Pellix ARM".
        gettext("Retrying %s update..."), targetName.c_str()));
    printLine("Retrying upgrade on following %s: ", orvinNoun(group.count()));
    printDevices(group);
}

// Makes up to two attempts, and leaves in the device list the devices that still differ. A late
// report of a fault may empty the list at any moment. The first attempt is made all the same, since
// it says on the console that no device is left.
void attemptUpgrade(const RunConfig& config, OrvinGroup& group, FirmwareImage& image,
                    VanidTexts& upToDate, VanidTexts& updated) {
    for (int attemptsLeft = kAttempts;;) {
        transferAndSummarize(config, group, image, updated);
        group.restoreFromFullList();
        waitForOrvins(group);
        upToDate.clear();
        group.checkVersions(image, upToDate, OrvinGroup::kRemoveUnreachable, OrvinGroup::kQuiet);
        --attemptsLeft;
        if (config.pretend || attemptsLeft == 0 || group.count() == 0) {
            return;
        }
        announceRetry(group, FirmwareImage::getTargetName(image.getHeader().device));
        if (group.count() == 0) {
            return;
        }
    }
}

// False when there is no device to upgrade.
bool announceUpgrade(OrvinGroup& group) {
    const int count = group.count();
    if (count == 0) {
        printLine("No Orvins to upgrade.\n");
        return false;
    }
    printLine("Upgrading %d %s", count, orvinNoun(count));
    return group.count() > 0;
}

int upgradeSelected(const RunConfig& config, OrvinGroup& group, FirmwareImage& image,
                    VanidTexts& upToDate, VanidTexts& updated) {
    if (!announceUpgrade(group)) {
        printLine("Removing image files from Orvins");
        return exit_status::kSuccess;
    }
    attemptUpgrade(config, group, image, upToDate, updated);
    if (config.pretend || group.count() == 0) {
        return exit_status::kSuccess;
    }
    printLine("The following %s could not be upgraded: ", orvinNoun(group.count()));
    printDevices(group);
    return exit_status::kOrvinsNotUpgraded;
}

}  // namespace

int upgradeImage(const RunConfig& config, OrvinGroup& group, const std::string& imagePath,
                 std::list<std::string>& upToDate, std::list<std::string>& updated) {
    ErrorInfo error;
    FirmwareImage image(&error);
    if (!image.open(imagePath)) {
        printLine("Error in '%s': %s", imagePath.c_str(), error.message.c_str());
        return error.code;
    }
    if (config.debug) {
        printHeader(image.getHeader());
    }
    selectOrvins(config, group, image, upToDate);
    const int result = upgradeSelected(config, group, image, upToDate, updated);
    image.close();
    group.restoreFromFullList();
    return result;
}

void printSummary(OrvinGroup& group, std::time_t start, std::time_t end,
                  std::list<std::string>& updated) {
    VanidTexts vanidTexts;
    group.getVanidTexts(vanidTexts);
    const int count = static_cast<int>(vanidTexts.size());
    if (count > 0) {
        printLine("Successfully updated %d %s: ", count, orvinNoun(count));
        printVanids(vanidTexts);
        updated.insert(updated.end(), vanidTexts.begin(), vanidTexts.end());
    }
    // A clock set back meanwhile gives a negative difference, printed as it is in 32 unsigned bits.
    const std::time_t elapsed = end - start;
    const std::time_t minutes = elapsed / 60;
    const std::time_t seconds = elapsed - 60 * minutes;
    printLine("Update took %u min %02u %s", static_cast<unsigned>(minutes),
              static_cast<unsigned>(seconds), seconds == 1 ? "second" : "seconds");
}
