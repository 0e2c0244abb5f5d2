#include "app/session.h"

#include "core/bus_session.h"
#include "core/exit_status.h"

bool startSession(BusSession& session, const std::string& connection) {
    session.handle = TalmApiInitialize();
    if (session.handle == nullptr) {
        session.lastError->set(exit_status::kBusSessionFailed, "Couldn't init talmapi connection");
        return false;
    }
    if (TalmApiOpen(session.handle, connection.c_str(), 0) < 0) {
        session.lastError->set(exit_status::kBusSessionFailed, "Couldn't open talmapi connection");
        return false;
    }
    session.open = true;
    return true;
}

void closeSession(BusSession& session) {
    if (!session.open) {
        return;
    }
    TalmApiCleanup(session.handle);
    TalmApiClose(session.handle);
    session.open = false;
    session.handle = nullptr;
}
