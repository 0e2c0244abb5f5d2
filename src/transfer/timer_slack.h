#ifndef TRANSFER_TIMER_SLACK_H
#define TRANSFER_TIMER_SLACK_H

#include <sys/prctl.h>

// Lets the sleeps of the calling thread end when they should, for a scope. The kernel otherwise
// adds up to 50 us of timer slack to each, and a transfer waits at least one millisecond for every
// packet. A thread that is started meanwhile inherits it.
class TimerSlack {
public:
    TimerSlack() : before_(prctl(PR_GET_TIMERSLACK)) { set(1); }
    ~TimerSlack() { set(before_); }
    TimerSlack(const TimerSlack&) = delete;
    TimerSlack& operator=(const TimerSlack&) = delete;

private:
    // Nothing is changed where what was there before could not be restored.
    void set(int nanoseconds) const {
        if (before_ > 0) {
            prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(nanoseconds));
        }
    }

    const int before_;  // nanoseconds; -1 where the system does not tell
};

#endif
