// The calls and callbacks of the bus interface as data, for the recorder and the simulated bus.
#ifndef TALM_BUS_CALL_H
#define TALM_BUS_CALL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "talm/vanid.h"

namespace talm {

constexpr std::size_t kPacketBytes = 64;
constexpr std::size_t kNameBytes = 32;  // the longest device name

enum class Function {
    Initialize,
    Open,
    GetLinkState,
    Cleanup,
    Close,
    GetBusMembers,
    GetType,
    IsTalm,
    OrvinInfo,
    WriteRequest,
    Data,
    CheckImage,
    StartUpdate,
    SetTransferCallback,
    SetBusChangeCallback,
    TransferCallback,  // from here on: callbacks, from the bus to the tool
    BusChangeCallback,
};

// The name of a function of the interface, and the field names that a recording uses for its
// arguments and outputs. Unused names are null.
struct Signature {
    const char* name;
    const char* text;                   // of Call::text
    std::array<const char*, 5> given;   // of Call::given
    std::array<const char*, 5> answer;  // of Call::answer
};

// In the order of Function.
inline constexpr Signature kSignatures[] = {
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
    {"OrvinImageMaintenance_check_image", nullptr, {"target"}, {"first_output", "second_output"}},
    {"OrvinImageMaintenance_start_update", nullptr, {"target"}, {}},
    {"TalmApiSetCallback", "callback", {"first", "second", "third", "last"}, {}},
    {"TalmApiSetBusChangeCallback", "callback", {"last"}, {}},
    {"TransferCallback", nullptr, {"result", "packet"}, {}},
    {"BusChangeCallback", nullptr, {"event"}, {}},
};

constexpr const Signature& signatureOf(Function function) {
    return kSignatures[static_cast<int>(function)];
}

// The name in the bus libraries' interface.
inline const char* nameOf(Function function) {
    return signatureOf(function).name;
}

inline bool isCallback(Function function) {
    return function >= Function::TransferCallback;
}

// Call::text of a call that sets or clears a callback.
inline const char* slotText(bool isSet) {
    return isSet ? "set" : "cleared";
}

// One call across the interface, to the bus or back.
struct Call {
    explicit Call(Function called, const std::optional<vanid_t>& itsDevice = std::nullopt,
                  std::vector<std::int64_t> numbers = {}, std::string itsText = {})
        : function(called),
          device(itsDevice),
          given(std::move(numbers)),
          text(std::move(itsText)) {}

    Function function;
    std::optional<vanid_t> device;     // the callee, or the device that reports
    std::vector<std::int64_t> given;   // the numbers among the arguments, in their order
    std::string text;                  // Open: the connection; Set...Callback: slotText
    std::string content;               // Data: the packet's bytes
    int result = 0;                    // from here on: known after the call
    std::vector<std::int64_t> answer;  // the numbers among the outputs
    std::vector<vanid_t> members;      // GetBusMembers
    std::string name;                  // OrvinInfo
};

}  // namespace talm

#endif
