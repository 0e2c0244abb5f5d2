#ifndef PERFORMANCE_TURNS_H
#define PERFORMANCE_TURNS_H

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <numeric>
#include <random>
#include <vector>

// Lets one of several threads, numbered from 0, go on at a time, in rounds, each round in another
// order: so all of them meet the machine in the same moods, and none always follows the same other.
class Turns {
public:
    explicit Turns(std::size_t threads) : round_(threads) {
        std::iota(round_.begin(), round_.end(), std::size_t{0});
    }

    // Waits for the thread's first turn.
    void begin(std::size_t thread) {
        std::unique_lock<std::mutex> lock(mutex_);
        await(lock, thread);
    }

    // Ends the thread's turn and waits for its next one.
    void pass(std::size_t thread) {
        std::unique_lock<std::mutex> lock(mutex_);
        ++turn_;
        goOn();
        await(lock, thread);
    }

    // Ends the last turn of the thread whose turn it is.
    void leave() {
        const std::lock_guard<std::mutex> lock(mutex_);
        round_.erase(round_.begin() + static_cast<std::ptrdiff_t>(turn_));
        goOn();
    }

private:
    void goOn() {
        if (turn_ == round_.size()) {
            turn_ = 0;
            std::shuffle(round_.begin(), round_.end(), random_);
        }
        changed_.notify_all();
    }

    void await(std::unique_lock<std::mutex>& lock, std::size_t thread) {
        changed_.wait(lock, [&] { return round_[turn_] == thread; });
    }

    std::mutex mutex_;  // guards all that follows
    std::condition_variable changed_;
    std::vector<std::size_t> round_;  // those that have not left, in the order of their turns
    std::size_t turn_ = 0;
    std::minstd_rand random_;
};

#endif
