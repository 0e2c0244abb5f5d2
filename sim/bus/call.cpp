#include "sim/bus/call.h"

namespace sim {

void intervene(Call& call, const Intervention& intervention) {
    call.result = intervention.result;
    if (intervention.answer) {
        call.answer = intervention.answer->numbers;
        call.members = intervention.answer->members;
        call.name = intervention.answer->name;
    }
    if (intervention.sleep) {
        intervention.sleep();
    }
}

std::vector<Observer*>& observers() {
    static auto& all = *new std::vector<Observer*>;  // as long as buses may be open
    return all;
}

}  // namespace sim
