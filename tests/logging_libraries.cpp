// Other libraries with the names and the interface of the bus libraries: a bus with one Orvin,
// whose every call is written to standard error.

#include <cstdio>
#include <cstring>

#include "talm/talm_api.h"

namespace {

const vanid_t kOrvin = {{0x0b, 0xff}};

// The first byte of the identifier tells whether it arrived by value.
int logged(const char* call, const vanid_t& device = {}, int result = 0) {
    fprintf(stderr, "%s %02x\n", call, unsigned{device.bytes[0]});
    return result;
}

}  // namespace

extern "C" {

TalmApiHandle TalmApiInitialize() {
    logged("Initialize");
    return reinterpret_cast<TalmApiHandle>(const_cast<vanid_t*>(&kOrvin));
}
int TalmApiOpen(TalmApiHandle, const char* connection, int reserved) {
    return logged(connection, {}, reserved);
}
int TalmApiGetLinkState(TalmApiHandle, bool* active) {
    *active = true;
    return logged("GetLinkState");
}
int TalmApiCleanup(TalmApiHandle) {
    return logged("Cleanup");
}
int TalmApiClose(TalmApiHandle) {
    return logged("Close");
}
int TalmApiGetBusMembers(TalmApiHandle, vanid_t* members, int) {
    members[0] = kOrvin;
    return logged("GetBusMembers", {}, 1);
}
int BusMember_get_type(TalmApiHandle, vanid_t member, uint8_t* type) {
    *type = 64;
    return logged("get_type", member);
}
int TalmApiIsTalm(vanid_t member) {
    return logged("IsTalm", member, 1);
}
int OrvinInfo(TalmApiHandle, vanid_t device, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void*, char* name) {
    *hw = 1, *arm = 2, *dsp = 3, *boosterArm = 4, *api = 5;
    strcpy(name, "Elsewhere");
    return logged("OrvinInfo", device);
}
int ImageTransfer_write_request(TalmApiHandle, vanid_t device, uint32_t, uint32_t, uint32_t,
                                uint32_t, uint16_t) {
    return logged("write_request", device);
}
int ImageTransfer_data(TalmApiHandle, vanid_t device, uint32_t, const uint8_t*, uint32_t*,
                       uint32_t*) {
    return logged("data", device, -2);
}
int OrvinImageMaintenance_check_image(TalmApiHandle, vanid_t device, uint32_t, uint16_t*,
                                      uint16_t*) {
    return logged("check_image", device);
}
int OrvinImageMaintenance_start_update(TalmApiHandle, vanid_t device, uint32_t) {
    return logged("start_update", device);
}
int TalmApiSetCallback(TalmApiHandle, int, int, int, const CallbackSlot*, int) {
    return logged("SetCallback");
}
int TalmApiSetBusChangeCallback(TalmApiHandle, const CallbackSlot*, int) {
    return logged("SetBusChangeCallback");
}
int vanid_equal(const vanid_t* a, const vanid_t* b) {
    return static_cast<int>(memcmp(a, b, sizeof *a) == 0);
}
int vanid_is_broadcast(const vanid_t* id) {
    return logged("is_broadcast", *id);
}

}  // extern "C"
