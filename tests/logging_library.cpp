// A libtalm-api-v2 whose bus has one Orvin, and which writes every call to standard error.

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

// A call that does nothing else.
#define LOGGED_CALL(name, ...) \
    int name(__VA_ARGS__) {    \
        return logged(#name);  \
    }

extern "C" {

TalmApiHandle TalmApiInitialize() {
    logged("TalmApiInitialize");
    return reinterpret_cast<TalmApiHandle>(const_cast<vanid_t*>(&kOrvin));
}
int TalmApiOpen(TalmApiHandle, const char* connection, int reserved) {
    return logged(connection, {}, reserved);
}
int TalmApiGetLinkState(TalmApiHandle, bool* active) {
    *active = true;
    return logged("TalmApiGetLinkState");
}
int TalmApiGetBusMembers(TalmApiHandle, vanid_t* members, int) {
    members[0] = kOrvin;
    return logged("TalmApiGetBusMembers", {}, 1);
}
int BusMember_get_type(TalmApiHandle, vanid_t member, uint8_t* type) {
    *type = 64;
    return logged("BusMember_get_type", member);
}
int OrvinInfo(TalmApiHandle, vanid_t device, uint32_t* hw, uint32_t* arm, uint32_t* dsp,
              uint32_t* boosterArm, uint16_t* api, void*, char* name) {
    *hw = 1, *arm = 2, *dsp = 3, *boosterArm = 4, *api = 5;
    memcpy(name, "Elsewhere", sizeof "Elsewhere");
    return logged("OrvinInfo", device);
}
LOGGED_CALL(TalmApiCleanup, TalmApiHandle)
LOGGED_CALL(TalmApiClose, TalmApiHandle)
LOGGED_CALL(TalmApiIsTalm, vanid_t)
LOGGED_CALL(ImageTransfer_write_request, TalmApiHandle, vanid_t, uint32_t, uint32_t, uint32_t,
            uint32_t, uint16_t)
LOGGED_CALL(ImageTransfer_data, TalmApiHandle, vanid_t, uint32_t, const uint8_t*, uint32_t*,
            uint32_t*)
LOGGED_CALL(OrvinImageMaintenance_check_image, TalmApiHandle, vanid_t, uint32_t, uint16_t*,
            uint16_t*)
LOGGED_CALL(OrvinImageMaintenance_start_update, TalmApiHandle, vanid_t, uint32_t)
LOGGED_CALL(TalmApiSetCallback, TalmApiHandle, int, int, int, const CallbackSlot*, int)
LOGGED_CALL(TalmApiSetBusChangeCallback, TalmApiHandle, const CallbackSlot*, int)

}  // extern "C"
