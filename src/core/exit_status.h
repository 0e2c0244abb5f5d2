#ifndef CORE_EXIT_STATUS_H
#define CORE_EXIT_STATUS_H

// Every exit status and result code of the tool. An update that succeeds ends with the number of
// distinct Orvins updated, 0 to 63; no other status is in that range. A result "of a transfer" ends
// the attempt and never is the exit status; tests/manual_test.sh looks for these words.
namespace exit_status {

constexpr int kSuccess = 0;
constexpr int kVersionQueryFailed = -1;  // seen by the caller as 255
constexpr int kNoMessageWriter = 128;    // the status message writer could not be created
constexpr int kImageInvalid = 128;      // of the image reader: no image, or its sizes do not add up
constexpr int kNoOrvinsLeft = 128;      // of a transfer: every device was dropped from it
constexpr int kBadCommandLine = 129;    // the usage text was printed
constexpr int kImageNotOpened = 130;    // of the image reader: the file could not be opened
constexpr int kImageReadFailed = 131;   // of a transfer: the image file could not be read
constexpr int kBusSessionFailed = 132;  // the bus library could not be started or connected
constexpr int kLinkInactive = 133;      // the bus link did not become active in time
constexpr int kSendFailed = 135;        // of a transfer: the bus library refused a packet
constexpr int kOrvinsNotUpgraded = 139;  // some Orvins still run another version

}  // namespace exit_status

#endif
