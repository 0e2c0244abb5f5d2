#include "app/run.h"

#include <libintl.h>
#include <exception>
#include <list>
#include <string>

#include "app/command_line.h"
#include "app/session.h"
#include "app/update_modes.h"
#include "bus/link_state.h"
#include "bus/listing.h"
#include "core/bus_session.h"
#include "core/console.h"
#include "core/exit_status.h"
#include "core/run_config.h"
#include "core/sleep.h"
#include "status/message_writer.h"

namespace {

constexpr char kVersion[] = ORVIN_VERSION;
const std::string defaultConnection = "tcp://localhost:8442";

constexpr int kLinkPolls = 20;
constexpr std::chrono::seconds kBetweenLinkPolls{5};
constexpr std::chrono::seconds kSettleTime{1};  // from the active link to the mode

// Never freed: a session lives until the process ends, and with it the error that it points to. A
// list, since a process may call run again.
BusSession& newSession() {
    struct SessionAndError {
        BusSession session;
        ErrorInfo error;
    };
    static auto& sessions = *new std::list<SessionAndError>;
    SessionAndError& created = sessions.emplace_back();
    created.session.lastError = &created.error;
    return created.session;
}

void useDefaultConnection(RunConfig& config) {
    config.connection = defaultConnection;
    if (config.debug) {
        printLine("No connnection specified, defaulting to %s", config.connection.c_str());
    }
}

bool createMessageWriter(const std::string& messageFile) {
    try {
        MessageWriter::init(messageFile);
        return true;
    } catch (const std::exception&) {  // no mutex, or no memory
        return false;
    }
}

bool waitForActiveLink(const BusSession& session) {
    for (int poll = 0; poll < kLinkPolls; ++poll) {
        if (isLinkActive(session)) {
            return true;
        }
        sleepFor(kBetweenLinkPolls);
    }
    return false;
}

int runMode(RunConfig& config) {
    if (config.listDevices) {
        return listMode(config);
    }
    if (config.queryVersion) {
        return versionMode(config);
    }
    return config.broadcast ? broadcastUpdate(config) : targetedUpdate(config);
}

int reportSessionFailure(const RunConfig& config, const ErrorInfo& error) {
    printLine("Failed to initialize lumnet lib on %s", config.connection.c_str());
    printLine("Error: %s", error.message.c_str());
    return exit_status::kBusSessionFailed;
}

// Waits for the link and runs the mode. The writer stays when the link does not become active.
int runOnBus(RunConfig& config) {
    printLine("Waiting for bus to become ACTIVE...");
    // TRANSLATORS: Lumnet is the name of the field bus.
    MessageWriter::instance()->write(gettext("Waiting for Lumnet bus to become active..."));
    if (!waitForActiveLink(*config.session)) {
        printLine("Bus not ACTIVE, exiting.");
        // TRANSLATORS: the upgrade has ended without having begun.
        MessageWriter::instance()->write(gettext("Lumnet bus not active, please try again later!"));
        closeSession(*config.session);
        return exit_status::kLinkInactive;
    }
    printLine("Bus ACTIVE, proceeding.");
    sleepFor(kSettleTime);

    const int result = runMode(config);
    closeSession(*config.session);
    delete MessageWriter::instance();
    return result;
}

}  // namespace

int run(RunConfig& config, int argc, char** argv) {
    config.programPath = argc > 0 ? argv[0] : "";
    printLine(">> Orvin Firmware upgrade v%s", kVersion);
    config.listDevices = config.queryVersion = config.broadcast = config.force = false;
    if (!parseCommandLine(config, argc, argv)) {
        printUsage(config);
        return exit_status::kBadCommandLine;
    }
    if (config.connection.empty()) {
        useDefaultConnection(config);
    }
    BusSession& session = newSession();
    config.session = &session;
    if (!startSession(session, config.connection)) {
        return reportSessionFailure(config, *session.lastError);
    }
    if (!createMessageWriter(config.messageFile)) {
        printLine("Coult not initialize message writer!");
        closeSession(session);
        return exit_status::kNoMessageWriter;
    }
    return runOnBus(config);
}
