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

enum class SystemCall {
    Open,
    CreateTemporary,
    Seek,
    Read,
    Write,
    Rename,
    Print,
    InitMutex,
    LockMutex,
    UnlockMutex,
};

struct MemorySystem {
    static constexpr char kStatusFile[] = "mem:status";
    static constexpr int kHalfOfIt = -1;  // a read or a write of half of the bytes

    static MemorySystem& instance();

    // The nth allocation of the tool itself fails, counted down from here; 0: none does. What runs
    // for it on the same thread, as a bus call or a system call, is outside.
    static inline int allocationsUntilFailure = 0;
    static inline int outside = 0;

    // Hears of what happens: text that is printed ("|" and the text), a message in the status file
    // ("= " and the message), files that are opened or closed.
    static inline std::function<void(const std::string& event)> listener;

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

    // Called at each system call with the name of its file, the printed text, or the number of the
    // mutex. Returns the error number of the call; 0: the call succeeds.
    std::function<int(SystemCall call, const std::string& what)> before;
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
