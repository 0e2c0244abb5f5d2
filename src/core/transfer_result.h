#ifndef CORE_TRANSFER_RESULT_H
#define CORE_TRANSFER_RESULT_H

// What a transfer ends with. None of these is the exit status: a transfer that fails costs the
// attempt.
namespace transfer_result {

constexpr int kSuccess = 0;
constexpr int kNoOrvinsLeft = 128;     // every device was dropped from it
constexpr int kImageReadFailed = 131;  // the image file could not be read
constexpr int kSendFailed = 135;       // the bus library refused a packet

}  // namespace transfer_result

#endif
