// The tool's system calls, answered in memory. A program that links this file sees no other files,
// except those that the C and C++ libraries open themselves.
#ifndef TESTS_SUPPORT_MEMORY_SYSTEM_H
#define TESTS_SUPPORT_MEMORY_SYSTEM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

// What happened in a run besides bus calls: text that is printed ("|" and the text), a message in
// the status file ("= " and the message), a file that is opened or closed, a sleep.
struct Event {
    std::int64_t time = 0;  // in microseconds
    std::string held;       // the numbers of the mutexes that were locked
    std::string text;       // empty: the next bus call or callback
};

struct MemorySystem {
    static constexpr char kStatusFile[] = "mem:status";
    static constexpr int kHalfOfIt = -1;  // a read or a write of half of the bytes

    static MemorySystem& instance();

    // The nth allocation of the tool itself fails, counted down from here; 0: none does. What runs
    // for it on the same thread, as a bus call or a system call, is outside.
    static inline int allocationsUntilFailure = 0;
    static inline int outside = 0;

    struct OpenFile {
        std::string name;
        std::size_t position = 0;
    };

    std::map<std::string, std::string> files;  // content by name
    std::int64_t missing = 0;                  // bytes by which each file is shorter than it claims
    std::vector<std::string> messages;         // all status messages, in order
    std::string console;                       // output that captureOutput has captured
    std::map<int, OpenFile> openFiles;
    std::map<const void*, std::string> mutexes;  // their numbers, as they were initialised: "1"...
    std::string held;  // the numbers of those that are locked, in that order
    std::vector<Event> events;

    // Runs at each call: open, mkstemp, seek, read, write, rename, print, or init, lock or unlock
    // with the number of the mutex ("lock 1").
    std::function<void(const std::string& call)> before;
    std::map<std::string, int> errors;  // error numbers, of "read #5" or "lock 1 #2"
    std::map<std::string, int> calls;   // how many there were

    void tell(const std::string& event);
    bool fails(const std::string& call);  // with errno set
};

// Does not count as the tool's own, for a scope.
struct OutsideTheTool {
    OutsideTheTool() { ++MemorySystem::outside; }
    ~OutsideTheTool() { --MemorySystem::outside; }
    OutsideTheTool(const OutsideTheTool&) = delete;
    OutsideTheTool& operator=(const OutsideTheTool&) = delete;
};

// Standard output of what `action` does.
std::string captureOutput(const std::function<void()>& action);

#endif
