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
constexpr int kFollowersPauseSeconds = 5;   // for those who follow the status message file

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

}  // namespace

bool OrvinGroup::waitForRejoin() {
    std::int64_t budget = rejoinBudget(count());
    // TRANSLATORS: shown while the devices restart with their new firmware.
    MessageWriter::instance()->write(gettext("Please wait..."));
    printLine("Will wait %lld seconds for Orvins to rejoin.", static_cast<long long>(budget));
    waitForLink();
    if (count() == 0) {
        clearBusChangeCallback();
        return true;
    }
    waitForReports(budget);
    clearBusChangeCallback();
    resetRejoinState();
    sleepSeconds(kSettleSeconds);
    waitForMembership(budget);
    sleepSeconds(kSettleSeconds);
    return waitForAnswers(budget);
}

// Not charged to the budget, and no error when the link stays down: the next phases will tell.
void OrvinGroup::waitForLink() {
    printProgress("Waiting for bus to become active...");
    for (int waits = 0; !isLinkActive(*session) && waits < kLinkWaits; ++waits) {
        sleepSeconds(kLinkWaitSeconds);
        printProgress(".");
    }
    printLine(" done.");
}

void OrvinGroup::waitForReports(std::int64_t& budget) {
    printProgress("Waiting for Orvins to get back online...");
    while (!allRejoined() && budget >= 1) {
        budget -= kReportWaitSeconds;
        sleepSeconds(kReportWaitSeconds);
        printProgress("<");
        writeProgress(static_cast<ssize_t>(rejoinedCount), count());
    }
}

void OrvinGroup::waitForMembership(std::int64_t& budget) {
    do {
        int onBus = 0;
        if (countOrvins(*session, &onBus) && onBus >= count()) {
            return;
        }
        printProgress("#");
        writeProgress(onBus, count());
        budget -= kMembershipWaitSeconds;
        sleepSeconds(kMembershipWaitSeconds);
    } while (budget >= 1);
}

// Asks at least once, even when the budget is spent.
bool OrvinGroup::waitForAnswers(std::int64_t& budget) {
    while (!allOnline()) {
        budget -= kAnswerWaitSeconds;
        printProgress("+");
        sleepSeconds(kAnswerWaitSeconds);
        if (budget < 1) {
            printLine(" timeout!");
            if (useMessageFile) {
                sleepSeconds(kFollowersPauseSeconds);
            }
            return false;
        }
    }
    printLine(" done.");
    return true;
}
