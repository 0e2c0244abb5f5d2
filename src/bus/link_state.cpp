#include "bus/link_state.h"

#include "core/bus_session.h"

bool isLinkActive(const BusSession& session) {
    bool active = false;  // the library may leave it alone, and its result does not tell
    if (session.open) {
        TalmApiGetLinkState(session.handle, &active);
    }
    return active;
}
