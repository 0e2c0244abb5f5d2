// The wait for the devices to come back after an update was started, in four phases: the bus link,
// the reports of restarted devices, the number of Orvins on the bus, and an answer from every
// device. The last three share one budget of time.

#include <libintl.h>

#include "bus/bus_members.h"
#include "bus/link_state.h"
#include "core/bus_session.h"
#include "core/console.h"
#include "core/sleep.h"
#include "group/orvin_group.h"
#include "status/format_message.h"
#include "status/message_writer.h"

namespace {

using std::chrono::seconds;

constexpr int kLinkWaits = 5;
constexpr seconds kLinkWait{5};
constexpr seconds kReportWait{5};         // charged to the budget
constexpr seconds kMembershipWait{15};    // charged to the budget
constexpr seconds kAnswerWait{15};        // charged to the budget
constexpr seconds kLeastBudget{1};        // to wait once more
constexpr seconds kSettleTime{1};         // between phases
constexpr seconds kPauseForFollowers{5};  // services that follow the status file

// Grows with the square of the number of devices, and more steeply for large groups.
seconds rejoinBudget(int devices) {
    constexpr int kLargeGroup = 40;
    const std::int64_t base = std::int64_t{devices + 10} * (devices > kLargeGroup ? 2 : 1);
    return seconds(base * base / 2);
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
        sleepFor(kLinkWait);
        printProgress(".");
    }
    printLine(" done.");
}

void waitForReports(OrvinGroup& group, const std::atomic<std::uint32_t>& reports, seconds& budget) {
    printProgress("Waiting for Orvins to get back online...");
    while (!group.allRejoined() && budget >= kLeastBudget) {
        budget -= kReportWait;
        sleepFor(kReportWait);
        printProgress("<");
        writeProgress(static_cast<ssize_t>(reports), group.count());
    }
}

void waitForMembership(OrvinGroup& group, const BusSession& session, seconds& budget) {
    do {
        int onBus = 0;
        if (countOrvins(session, &onBus) && onBus >= group.count()) {
            return;
        }
        printProgress("#");
        writeProgress(onBus, group.count());
        budget -= kMembershipWait;
        sleepFor(kMembershipWait);
    } while (budget >= kLeastBudget);
}

// Asks at least once, even when the budget is spent.
bool waitForAnswers(OrvinGroup& group, seconds& budget) {
    while (!group.allOnline()) {
        budget -= kAnswerWait;
        printProgress("+");
        sleepFor(kAnswerWait);
        if (budget < kLeastBudget) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool OrvinGroup::waitForRejoin() {
    seconds budget = rejoinBudget(count());
    // TRANSLATORS: shown while the devices restart with their new firmware.
    MessageWriter::instance()->write(gettext("Please wait..."));
    printLine("Will wait %lld seconds for Orvins to rejoin.",
              static_cast<long long>(budget.count()));
    waitForLink(*session);
    if (count() == 0) {
        clearBusChangeCallback();
        return true;
    }
    waitForReports(*this, rejoinedCount, budget);
    clearBusChangeCallback();
    resetRejoinState();
    sleepFor(kSettleTime);
    waitForMembership(*this, *session, budget);
    sleepFor(kSettleTime);
    const bool online = waitForAnswers(*this, budget);
    printLine(online ? " done." : " timeout!");
    if (!online && useMessageFile) {
        sleepFor(kPauseForFollowers);
    }
    return online;
}
