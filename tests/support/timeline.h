// A run as one list in order: what the reader of the console sees, the status messages, the bus
// calls and callbacks, the files and the sleeps, each with the time.
#ifndef TESTS_SUPPORT_TIMELINE_H
#define TESTS_SUPPORT_TIMELINE_H

#include <optional>
#include <string>
#include <vector>

#include "sim/bus/interceptor.h"
#include "support/virtual_time.h"

// Listens to a run. One at a time.
class Timeline : public sim::Interceptor {
public:
    Timeline();
    ~Timeline() override;
    Timeline(const Timeline&) = delete;
    Timeline& operator=(const Timeline&) = delete;

    std::optional<sim::InjectedResult> before(const sim::Call& call) override;
    void after(const sim::Call& call) override;

    // A line for each event. It begins with the time in seconds, where the time has moved, and the
    // mutexes that the tool holds: 1 is the message writer's, 2 the device list's, 3 the full
    // list's. Then follows
    //
    //     | text        on the console; a backslash at the end stands for a line that goes on
    //     = message     in the status file
    //     < result      of a transfer, or another callback, with its devices
    //     a bus call    with its devices and arguments, its result and what it wrote
    //     open, close, sleep; polls of the packet loop are left out, as all sleeps of 1 ms
    //
    // ..: stands for what the identifiers have in common. Lines that differ only in their device
    // are one. What repeats itself, packet by packet or poll by poll, is told and counted.
    std::string text() const;

private:
    struct Entry {
        sim::Microseconds time = 0;
        std::string held;
        std::string event;
        std::string device;                  // of a call or a callback
        std::string details;                 // what stands behind the device
        std::optional<std::int64_t> packet;  // that it is about
        std::string content;                 // of the packet
    };
    using Entries = std::vector<Entry>;

    // Entries of that length that come again behind themselves, so many times.
    struct Repetition {
        std::size_t length = 1;
        std::size_t times = 0;
    };

    void add(Entry entry);
    static Entries joined(const Entries& entries);
    static std::size_t repetitions(const Entries& entries, std::size_t begin, std::size_t length);
    static Repetition repetitionAt(const Entries& entries, std::size_t begin);
    static std::string lineOf(const Repetition& repetition, const Entry* first);
    static std::string linesOf(const Entry& entry, bool withTime);

    Entries all;
    std::vector<std::size_t> underWay;  // a callback may come while a call sleeps
};

#endif
