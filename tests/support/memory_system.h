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

    static inline std::size_t refusedAllocation = 0;  // new fails for this size; 0: never

    struct OpenFile {
        std::string name;
        std::size_t position = 0;
    };

    std::map<std::string, std::string> files;  // content by name
    std::int64_t missing = 0;                  // bytes by which each file is shorter than it claims
    std::vector<std::string> messages;         // all status messages, in order
    std::string console;                       // output that captureOutput has captured
    std::map<int, OpenFile> openFiles;
    std::map<const void*, std::string> mutexes;  // numbered in the order of initialisation: "1"...

    // Called at each system call with the name of its file, the printed text, or the number of the
    // mutex. Returns the error number of the call; 0: the call succeeds.
    std::function<int(SystemCall call, const std::string& what)> before;
};

// The standard output of `action`.
std::string captureOutput(const std::function<void()>& action);

#endif
