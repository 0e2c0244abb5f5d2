#ifndef PERFORMANCE_MEASURED_BUS_H
#define PERFORMANCE_MEASURED_BUS_H

#include <list>
#include <stdexcept>
#include <string>

#include "bus/bus_members.h"
#include "core/bus_session.h"

// A connection to a simulated bus, for as long as it lives.
class MeasuredBus {
public:
    // Throws std::runtime_error when there is no such bus.
    explicit MeasuredBus(const std::string& busFile) {
        session.handle = TalmApiInitialize();
        if (TalmApiOpen(session.handle, ("sim:" + busFile).c_str(), 0) != 0) {
            throw std::runtime_error("the bus cannot be opened");
        }
        session.open = true;
        describeBusMembers(session, devices, true);
    }
    ~MeasuredBus() {
        TalmApiCleanup(session.handle);
        TalmApiClose(session.handle);
    }
    MeasuredBus(const MeasuredBus&) = delete;
    MeasuredBus& operator=(const MeasuredBus&) = delete;

    BusSession session;
    std::list<std::string> devices;
};

#endif
