// The calls of the bus interface and its callbacks, as data: what a recorder notes and a simulated
// bus lets pass.
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
constexpr std::size_t kNameBytes = 32;  // room for a device's name

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
    TransferCallback,  // from here on, from the bus to the tool
    BusChangeCallback,
};

// A function of the interface, with the names that a recording has for its numbers. Unused names
// are null.
struct Signature {
    const char* name;
    const char* text;                   // of Call::text
    std::array<const char*, 5> given;   // of Call::given
    std::array<const char*, 5> answer;  // of Call::answer
};

// In the order of the functions.
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

// What Call::text says of a callback that is set or cleared.
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
    std::optional<vanid_t> device;     // the one that it goes to, or that reports
    std::vector<std::int64_t> given;   // its numbers, in the order of the arguments
    std::string text;                  // Open: the connection; Set...Callback: slotText
    std::string content;               // Data: the packet's bytes
    int result = 0;                    // from here on, known once the call was carried out
    std::vector<std::int64_t> answer;  // what it wrote beside its result
    std::vector<vanid_t> members;      // GetBusMembers
    std::string name;                  // OrvinInfo
};

}  // namespace talm

#endif
