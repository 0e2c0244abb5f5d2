#ifndef TRANSFER_TIMER_SLACK_H
#define TRANSFER_TIMER_SLACK_H

#include <sys/prctl.h>

// Lets the sleeps of the calling thread end when they should, for a scope. The kernel otherwise
// adds up to 50 us of timer slack to each, and a transfer waits at least one millisecond for every
// packet. A thread that is started meanwhile inherits it.
class TimerSlack {
public:
    TimerSlack() : before(prctl(PR_GET_TIMERSLACK)) { set(1); }
    ~TimerSlack() { set(before); }
    TimerSlack(const TimerSlack&) = delete;
    TimerSlack& operator=(const TimerSlack&) = delete;

private:
    // Changes nothing where the system does not tell the slack, which could not be restored then.
    void set(int nanoseconds) const {
        if (before > 0) {
            prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(nanoseconds));
        }
    }

    const int before;  // nanoseconds; -1 where the system does not tell
};

#endif
