#ifndef BUS_LINK_STATE_H
#define BUS_LINK_STATE_H

struct BusSession;

// Whether the bus link is active now. A session that is not open is not asked.
[[nodiscard]] bool isLinkActive(const BusSession& session);

#endif
