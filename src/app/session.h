#ifndef APP_SESSION_H
#define APP_SESSION_H

#include <string>

struct BusSession;

// Starts the bus library and connects it to the bus at the URI `connection`. On failure the reason
// stands in the session's error record and the session is not open.
[[nodiscard]] bool startSession(BusSession& session, const std::string& connection);

// Closes an open session and forgets its handle; does nothing to a session that is not open.
void closeSession(BusSession& session);

#endif
