#include "recording/call.h"

namespace recording {

// In the order of the functions.
const Signature& signatureOf(Function function) {
    static constexpr Signature kSignatures[] = {
        {"TalmApiInitialize", nullptr, {}, {}},
        {"TalmApiOpen", "connection", {"reserved"}, {}},
        {"TalmApiGetLinkState", nullptr, {}, {"active"}},
        {"TalmApiCleanup", nullptr, {}, {}},
        {"TalmApiClose", nullptr, {}, {}},
        {"TalmApiGetBusMembers", nullptr, {"capacity"}, {}},
        {"BusMember_get_type", nullptr, {}, {"type"}},
        {"TalmApiIsTalm", nullptr, {}, {}},
        {"OrvinInfo", nullptr, {}, {"hw", "arm", "dsp", "booster_arm", "api"}},
        {"ImageTransfer_write_request",
         nullptr,
         {"manufacturer", "target", "content_type", "content_size", "content_checksum"},
         {}},
        {"ImageTransfer_data", nullptr, {"packet"}, {}},
        {"OrvinImageMaintenance_check_image",
         nullptr,
         {"target"},
         {"first_output", "second_output"}},
        {"OrvinImageMaintenance_start_update", nullptr, {"target"}, {}},
        {"TalmApiSetCallback", "callback", {"first", "second", "third", "last"}, {}},
        {"TalmApiSetBusChangeCallback", "callback", {"last"}, {}},
        {"TransferCallback", nullptr, {"result", "packet"}, {}},
        {"BusChangeCallback", nullptr, {"event"}, {}},
    };
    return kSignatures[static_cast<int>(function)];
}

}  // namespace recording
