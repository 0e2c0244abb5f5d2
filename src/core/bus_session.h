#ifndef CORE_BUS_SESSION_H
#define CORE_BUS_SESSION_H

#include "core/error_info.h"
#include "talm/talm_api.h"

// The process's connection to the bus. Written by the main thread only, before the first callback
// is registered and after the group's end, so it needs no lock.
struct BusSession {
    bool open = false;               // from a successful TalmApiOpen until closeSession
    TalmApiHandle handle = nullptr;  // from TalmApiInitialize until closeSession
    ErrorInfo* lastError = nullptr;  // not owned: why the session could not be started
};

#endif
