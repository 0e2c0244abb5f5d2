#ifndef TRANSFER_UPGRADE_IMAGE_H
#define TRANSFER_UPGRADE_IMAGE_H

#include <ctime>
#include <list>
#include <string>

class OrvinGroup;
struct RunConfig;

// Upgrades the group with one image file, with a second attempt for the devices that come back with
// another version. Restores the group's device list before it returns, unless the image could not
// be opened, which leaves the group alone. Main thread.
//
// `upToDate` gets the devices that the last version check found up to date; `updated` grows by
// those that each successful attempt reports. Returns kSuccess, the image reader's error code, or
// kOrvinsNotUpgraded when devices still differ after the second attempt.
[[nodiscard]] int upgradeImage(const RunConfig& config, OrvinGroup& group,
                               const std::string& imagePath, std::list<std::string>& upToDate,
                               std::list<std::string>& updated);

// Reports the device list as updated, with the time the attempt took, and appends it to `updated`.
void printSummary(OrvinGroup& group, std::time_t start, std::time_t end,
                  std::list<std::string>& updated);

#endif
