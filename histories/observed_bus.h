#ifndef HISTORIES_OBSERVED_BUS_H
#define HISTORIES_OBSERVED_BUS_H

#include <vector>

#include "histories/history.h"
#include "sim/bus.h"

namespace histories {

// The bus libraries' C interface on a simulated bus, with a record of every call, and faults at the
// calls that they are meant for. There is one at a time.
class ObservedBus {
public:
    // Both must outlive it.
    ObservedBus(const Scenario& scenario, const std::vector<Fault>& faults);
    ~ObservedBus();
    ObservedBus(const ObservedBus&) = delete;
    ObservedBus& operator=(const ObservedBus&) = delete;

    static ObservedBus& current();

    // Records a call and lets happen what happens at it.
    CallRecord& begin(Call call, const vanid_t* id = nullptr);

    // The result of the call that began last: the fault's, or what `carryOut` gives.
    int end(const std::function<int()>& carryOut);

    // The fault of that kind at the call that began last, or null.
    const Fault* faultOf(FaultKind kind) const;

    sim::Bus& bus() { return bus_; }
    std::vector<CallRecord>& calls() { return calls_; }

    // The image that the tool announced last, null before.
    const ImageFile* image() const { return image_; }
    void announce(std::uint32_t target, std::uint32_t size, std::uint16_t checksum);

    vanid_t idOf(int member) const;

private:
    int memberOf(const vanid_t& id) const;
    void strike(const Fault& fault);

    const Scenario& scenario_;
    const std::vector<Fault>& faults_;
    const std::size_t callLimit_;
    sim::Bus bus_;
    std::vector<CallRecord> calls_;
    const ImageFile* image_ = nullptr;
};

}  // namespace histories

#endif
