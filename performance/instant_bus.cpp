// A bus library with one device that has every packet at once, keeps none, and never makes anybody
// wait: what a run under it needs of memory is the tool's own.

#include <unistd.h>

#include "talm/talm_api.h"

namespace {

constexpr vanid_t kOrvin = {{1}};
CallbackSlot transferSlot;
uint32_t announcedVersion = 1;  // what it answers once started; the image's differs from 1

}  // namespace

// The program's own waits, too.
extern "C" int usleep(useconds_t) {
    return 0;
}

extern "C" {

TalmApiHandle TalmApiInitialize() {
    return reinterpret_cast<TalmApiHandle>(&transferSlot);
}
int TalmApiOpen(TalmApiHandle, const char*, int) {
    return 0;
}
int TalmApiGetLinkState(TalmApiHandle, bool* active) {
    *active = true;
    return 0;
}
int TalmApiCleanup(TalmApiHandle) {
    return 0;
}
int TalmApiClose(TalmApiHandle) {
    return 0;
}
int TalmApiGetBusMembers(TalmApiHandle, vanid_t* members, int) {
    members[0] = kOrvin;
    return 1;
}
int BusMember_get_type(TalmApiHandle, vanid_t, uint8_t* type) {
    *type = 64;
    return 0;
}
int TalmApiIsTalm(vanid_t) {
    return 1;
}
int OrvinInfo(TalmApiHandle, vanid_t, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void*, char* name) {
    *hw = *dsp = *boosterArm = 1;
    *arm = announcedVersion;
    *api = 1;
    *name = 0;
    return 0;
}
int ImageTransfer_write_request(TalmApiHandle, vanid_t, uint32_t, uint32_t, uint32_t, uint32_t,
                                uint16_t) {
    return 0;
}
int ImageTransfer_data(TalmApiHandle, vanid_t, uint32_t packetNumber, const uint8_t*, uint32_t*,
                       uint32_t*) {
    reinterpret_cast<TransferCallback>(transferSlot.function)(0, transferSlot.userArgument, kOrvin,
                                                              kOrvin, packetNumber, 0);
    return -2;
}
int OrvinImageMaintenance_check_image(TalmApiHandle, vanid_t, uint32_t, uint16_t* announced,
                                      uint16_t* computed) {
    *announced = *computed = 0;
    return 0;
}
int OrvinImageMaintenance_start_update(TalmApiHandle, vanid_t, uint32_t) {
    announcedVersion = 2;
    return 0;
}
int TalmApiSetCallback(TalmApiHandle, int, int, int, const CallbackSlot* slot, int) {
    transferSlot = *slot;
    return 0;
}
int TalmApiSetBusChangeCallback(TalmApiHandle, const CallbackSlot*, int) {
    return 0;
}

}  // extern "C"
