#ifndef CORE_EXIT_STATUS_H
#define CORE_EXIT_STATUS_H

// Every exit status of the tool. An update that succeeds ends with the number of distinct Orvins
// updated, 0 to 63; no other status is in that range.
namespace exit_status {

constexpr int kSuccess = 0;
constexpr int kVersionQueryFailed = -1;  // seen by the caller as 255
constexpr int kNoMessageWriter = 128;    // the status message writer could not be created
constexpr int kImageInvalid = 128;       // no image, or its sizes do not add up
constexpr int kBadCommandLine = 129;     // the usage text was printed
constexpr int kImageNotOpened = 130;     // the image file could not be opened
constexpr int kBusSessionFailed = 132;   // the bus library could not be started or connected
constexpr int kLinkInactive = 133;       // the bus link did not become active in time
constexpr int kOrvinsNotUpgraded = 139;  // some Orvins still run another version

}  // namespace exit_status

#endif
