// What can cross the bus interface, in either direction.
#ifndef RECORDING_CALL_H
#define RECORDING_CALL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "talm/vanid.h"

namespace recording {

using Microseconds = std::int64_t;

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

const Signature& signatureOf(Function function);

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

}  // namespace recording

#endif
