#include "bus/link_state.h"

#include "core/bus_session.h"

bool isLinkActive(const BusSession& session) {
    bool active = false;  // the library may leave it as it is, and its result does not say so
    if (session.open) {
        TalmApiGetLinkState(session.handle, &active);
    }
    return active;
}
