// The one seam at the bus interface: every call of the tool and every callback passes the
// observers, which may look on or step in.
#ifndef SIM_BUS_CALL_H
#define SIM_BUS_CALL_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "talm/bus_call.h"

namespace sim {

using talm::Call;
using talm::Function;
using talm::isCallback;
using talm::kNameBytes;
using talm::kPacketBytes;
using talm::nameOf;

// What a call writes beside its result, as in Call.
struct Answer {
    std::vector<std::int64_t> numbers;
    std::vector<vanid_t> members;
    std::string name;
};

// What an observer makes of a call instead of letting it take its course.
struct Intervention {
    int result = 0;
    bool carriedOut = false;  // the bus carries it out all the same; its own result is lost
    std::optional<Answer> answer = {};  // in place of the call's own
    std::function<void()> sleep = {};   // before the call returns; empty: not at all
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

// Gives the call its outcome and lets it last as long as it is to.
void intervene(Call& call, const Intervention& intervention);

// Asks all observers, carries the call out unless one intervenes, and shows them the outcome.
// `carryOut` fills in what the call writes, and returns its result.
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
        call.result = carryOut();
    }
    if (intervention) {
        intervene(call, *intervention);
    }
    for (Observer* const observer : all) {
        observer->after(call);
    }
    return call.result;
}

}  // namespace sim

#endif
