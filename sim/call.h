// The one seam at the bus interface: every call of the tool and every callback passes the
// observers, which may look on or step in.
#ifndef SIM_CALL_H
#define SIM_CALL_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "talm/vanid.h"

namespace sim {

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

// The name in the bus libraries' interface.
const char* nameOf(Function function);

inline bool isCallback(Function function) {
    return function >= Function::TransferCallback;
}

// One call across the interface, to the bus or back. A callback's numbers are result and packet, or
// the event.
struct Call {
    explicit Call(Function called, const std::optional<vanid_t>& whom = std::nullopt,
                  std::vector<std::int64_t> numbers = {}, std::string words = {})
        : function(called), device(whom), given(std::move(numbers)), text(std::move(words)) {}

    Function function;
    std::optional<vanid_t> device;     // the one that it goes to, or that reports
    std::vector<std::int64_t> given;   // its numbers, in the order of the arguments
    std::string text;                  // Open: the connection; Set...Callback: "set" or "cleared"
    std::string content;               // Data: the packet's bytes
    int result = 0;                    // from here on, known once the call was carried out
    std::vector<std::int64_t> answer;  // what it wrote beside its result
    std::vector<vanid_t> members;      // GetBusMembers
    std::string name;                  // OrvinInfo
};

// The call as one line of text: name, arguments, result and what it wrote.
std::string describe(const Call& call);

// What an observer makes of a call instead of letting it take its course.
struct Intervention {
    int result = 0;
    bool carriedOut = false;  // the bus carries it out all the same; its own result is lost
};

// Called on the caller's thread, several at once, without any lock of the bus held.
class Observer {
public:
    virtual ~Observer() = default;

    // Before the call is carried out. The first observer that intervenes decides; a callback that
    // one intervenes in is not made.
    virtual std::optional<Intervention> before(const Call& /*call*/) { return std::nullopt; }

    // After the call, with its outcome.
    virtual void after(const Call& /*call*/) {}
};

// The observers of all buses of this process, asked before those of a bus itself. Not owned. Change
// them only while no bus is in use.
std::vector<Observer*>& observers();

// Asks all observers, carries the call out unless one intervenes, and shows them the outcome.
// `carryOut` gets the call to fill in what it writes, and returns the result.
template <typename CarryOut>
int pass(Call& call, const std::vector<Observer*>& ofTheBus, CarryOut carryOut) {
    std::vector<Observer*> all = observers();
    all.insert(all.end(), ofTheBus.begin(), ofTheBus.end());
    std::optional<Intervention> intervention;
    for (Observer* const observer : all) {
        const std::optional<Intervention> own = observer->before(call);
        intervention = intervention ? intervention : own;
    }
    if (!intervention || intervention->carriedOut) {
        call.result = carryOut(call);
    }
    if (intervention) {
        call.result = intervention->result;
    }
    for (Observer* const observer : all) {
        observer->after(call);
    }
    return call.result;
}

}  // namespace sim

#endif
