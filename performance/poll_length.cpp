// How long a sleep of one poll really takes, with the kernel's usual timer slack and with that of a
// transfer. Prints the means, in microseconds, as one line of JSON.

#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "transfer/timer_slack.h"

namespace {

double meanPoll() {
    constexpr int kPolls = 1'000;
    const auto start = std::chrono::steady_clock::now();
    for (int poll = 0; poll < kPolls; ++poll) {
        usleep(1'000);
    }
    const std::chrono::duration<double, std::micro> length =
        std::chrono::steady_clock::now() - start;
    return length.count() / kPolls;
}

double meanPollOfATransfer() {
    const TimerSlack slack;
    return meanPoll();
}

}  // namespace

int main() {
    const double usual = meanPoll();
    std::printf("{\"usual\": %.1f, \"transfer\": %.1f}\n", usual, meanPollOfATransfer());
}
