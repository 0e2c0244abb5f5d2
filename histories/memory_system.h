#ifndef HISTORIES_MEMORY_SYSTEM_H
#define HISTORIES_MEMORY_SYSTEM_H

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace histories {

// Something that goes wrong with one of the status messages, counted from 1.
struct StatusFault {
    enum class Kind { None, Create, Write, ShortWrite, Rename };
    Kind kind = Kind::None;
    int message = 0;
};

// The files that a run of the tool reads and writes and the console, in memory: a program that
// links it gets its file calls from it, so that a run makes no system call. Files have names that
// begin with "mem:", and the temporary files of the status messages; any other name is the system's
// own.
class MemorySystem {
public:
    static constexpr char kStatusFile[] = "mem:status";

    static MemorySystem& instance();

    // Forgets all files and messages.
    void reset();

    // Runs `action` with its standard output going to `console`.
    void captureConsole(const std::function<void()>& action);

    std::map<std::string, std::string> files;  // content by name
    std::vector<std::string> messages;         // all that the status file held, in order
    std::string console;
    StatusFault statusFault;

    // Whether the fault strikes the message that is being written.
    bool strikes(StatusFault::Kind kind) const {
        return statusFault.kind == kind && statusFault.message == messagesBegun;
    }
    int messagesBegun = 0;
};

}  // namespace histories

#endif
