#include "transfer/upgrade_image.h"

#include <libintl.h>

#include <cstdint>
#include <cstdio>
#include <iostream>

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
    printf("HS: %d, Man: %x, Dev: %d, CT: %x, CS: %x, CC: %x, V: %08x\n",
           static_cast<int>(header.headerSize), header.manufacturer,
           static_cast<int>(header.device), header.contentType, header.contentSize,
           unsigned{header.contentChecksum}, header.version);
}

void printVanids(const VanidTexts& vanidTexts) {
    for (const std::string& text : vanidTexts) {
        std::cout << "  " << text << std::endl;
    }
}

void printDevices(OrvinGroup& group) {
    VanidTexts vanidTexts;
    group.getVanidTexts(vanidTexts);
    printVanids(vanidTexts);
}

// Leaves in the device list those that need the image.
void selectOrvins(const RunConfig& config, OrvinGroup& group, const FirmwareImage& image,
                  VanidTexts& upToDate) {
    if (!config.force) {
        group.checkVersions(image, upToDate, false, true);
    }
    if (!config.debug) {
        return;
    }
    for (const std::string& text : upToDate) {
        std::cout << "orvin '" << text << "' already up to date" << std::endl;
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
        std::cout << "\nWaiting for " << count << ' ' << orvinNoun(count) << " to rejoin...\n"
                  << std::endl;
    }
    if (!group.waitForRejoin()) {
        std::cout << "Warning: not all of the updated Orvins are back online!" << std::endl;
    }
}

void announceRetry(OrvinGroup& group, const std::string& targetName) {
    MessageWriter::instance()->write(formatMessage(
        // TRANSLATORS: %s is the processor that the firmware is for, such as "Pellix ARM".
        gettext("Retrying %s update..."), targetName.c_str()));
    std::cout << "Retrying upgrade on following " << orvinNoun(group.count()) << ": " << std::endl;
    printDevices(group);
}

// Up to two attempts. What stays in the device list are the devices that still differ.
void attemptUpgrade(const RunConfig& config, OrvinGroup& group, FirmwareImage& image,
                    VanidTexts& upToDate, VanidTexts& updated) {
    for (int attemptsLeft = kAttempts; attemptsLeft > 0;) {
        transferAndSummarize(config, group, image, updated);
        group.restoreFromFullList();
        waitForOrvins(group);
        upToDate.clear();
        group.checkVersions(image, upToDate, true, false);
        --attemptsLeft;
        if (config.pretend || group.count() == 0) {
            return;
        }
        if (attemptsLeft > 0) {
            announceRetry(group, FirmwareImage::getTargetName(image.getHeader().device));
        }
    }
}

int upgradeSelected(const RunConfig& config, OrvinGroup& group, FirmwareImage& image,
                    VanidTexts& upToDate, VanidTexts& updated) {
    const int count = group.count();
    if (count == 0) {
        std::cout << "No Orvins to upgrade.\n" << std::endl;
        std::cout << "Removing image files from Orvins" << std::endl;
        return exit_status::kSuccess;
    }
    std::cout << "Upgrading " << count << ' ' << orvinNoun(count) << std::endl;
    attemptUpgrade(config, group, image, upToDate, updated);
    if (config.pretend || group.count() == 0) {
        return exit_status::kSuccess;
    }
    std::cout << "The following " << orvinNoun(group.count())
              << " could not be upgraded: " << std::endl;
    printDevices(group);
    return exit_status::kOrvinsNotUpgraded;
}

}  // namespace

int upgradeImage(const RunConfig& config, OrvinGroup& group, const std::string& imagePath,
                 std::list<std::string>& upToDate, std::list<std::string>& updated) {
    ErrorInfo error;
    FirmwareImage image(&error);
    if (!image.open(imagePath)) {
        std::cout << "Error in '" << imagePath << "': " << error.message << std::endl;
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
        std::cout << "Successfully updated " << count << ' ' << orvinNoun(count) << ": "
                  << std::endl;
        printVanids(vanidTexts);
        updated.insert(updated.end(), vanidTexts.begin(), vanidTexts.end());
    }
    // A clock set back meanwhile gives a negative difference, printed as it is in 32 unsigned bits.
    const std::time_t elapsed = end - start;
    const std::time_t minutes = elapsed / 60;
    const std::time_t seconds = elapsed - 60 * minutes;
    char duration[64];
    snprintf(duration, sizeof duration, "%u min %02u %s", static_cast<unsigned>(minutes),
             static_cast<unsigned>(seconds), seconds == 1 ? "second" : "seconds");
    std::cout << "Update took " << duration << std::endl;
}
