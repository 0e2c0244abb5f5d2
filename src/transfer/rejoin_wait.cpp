// The wait for the devices to come back after an update was started, in four phases: the bus link,
// the reports of restarted devices, the number of Orvins on the bus, and an answer from every
// device. The last three share one budget of time.

#include <libintl.h>
#include <unistd.h>

#include "bus/bus_members.h"
#include "bus/link_state.h"
#include "core/bus_session.h"
#include "core/console.h"
#include "group/orvin_group.h"
#include "status/format_message.h"
#include "status/message_writer.h"

namespace {

constexpr int kLinkWaits = 5;
constexpr int kLinkWaitSeconds = 5;
constexpr int kReportWaitSeconds = 5;       // charged to the budget
constexpr int kMembershipWaitSeconds = 15;  // charged to the budget
constexpr int kAnswerWaitSeconds = 15;      // charged to the budget
constexpr int kSettleSeconds = 1;           // between phases
constexpr int kFollowersPauseSeconds = 5;   // for services that follow the status file

// Seconds, growing with the square of the number of devices, and more steeply for large groups.
std::int64_t rejoinBudget(int devices) {
    constexpr int kLargeGroup = 40;
    const std::int64_t base = std::int64_t{devices + 10} * (devices > kLargeGroup ? 2 : 1);
    return base * base / 2;
}

void sleepSeconds(int seconds) {
    usleep(static_cast<useconds_t>(seconds) * 1'000'000);
}

void writeProgress(ssize_t completed, ssize_t total) {
    MessageWriter::instance()->write(formatMessage(
        // TRANSLATORS: the first %zd is the number of devices that are back after they installed
        // the firmware, the second one the number of all that install it.
        gettext("Installing Orvin firmware: %zd / %zd completed"), completed, total));
}

// Not charged to the budget. A link that stays down is no error here: the next phases run into it.
void waitForLink(const BusSession& session) {
    printProgress("Waiting for bus to become active...");
    for (int waits = 0; !isLinkActive(session) && waits < kLinkWaits; ++waits) {
        sleepSeconds(kLinkWaitSeconds);
        printProgress(".");
    }
    printLine(" done.");
}

void waitForReports(OrvinGroup& group, const std::atomic<std::uint32_t>& reports,
                    std::int64_t& budget) {
    printProgress("Waiting for Orvins to get back online...");
    while (!group.allRejoined() && budget >= 1) {
        budget -= kReportWaitSeconds;
        sleepSeconds(kReportWaitSeconds);
        printProgress("<");
        writeProgress(static_cast<ssize_t>(reports), group.count());
    }
}

void waitForMembership(OrvinGroup& group, const BusSession& session, std::int64_t& budget) {
    do {
        int onBus = 0;
        if (countOrvins(session, &onBus) && onBus >= group.count()) {
            return;
        }
        printProgress("#");
        writeProgress(onBus, group.count());
        budget -= kMembershipWaitSeconds;
        sleepSeconds(kMembershipWaitSeconds);
    } while (budget >= 1);
}

// Asks at least once, even when the budget is spent.
bool waitForAnswers(OrvinGroup& group, std::int64_t& budget) {
    while (!group.allOnline()) {
        budget -= kAnswerWaitSeconds;
        printProgress("+");
        sleepSeconds(kAnswerWaitSeconds);
        if (budget < 1) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool OrvinGroup::waitForRejoin() {
    std::int64_t budget = rejoinBudget(count());
    // TRANSLATORS: shown while the devices restart with their new firmware.
    MessageWriter::instance()->write(gettext("Please wait..."));
    printLine("Will wait %lld seconds for Orvins to rejoin.", static_cast<long long>(budget));
    waitForLink(*session);
    if (count() == 0) {
        clearBusChangeCallback();
        return true;
    }
    waitForReports(*this, rejoinedCount, budget);
    clearBusChangeCallback();
    resetRejoinState();
    sleepSeconds(kSettleSeconds);
    waitForMembership(*this, *session, budget);
    sleepSeconds(kSettleSeconds);
    const bool online = waitForAnswers(*this, budget);
    printLine(online ? " done." : " timeout!");
    if (!online && useMessageFile) {
        sleepSeconds(kFollowersPauseSeconds);
    }
    return online;
}
