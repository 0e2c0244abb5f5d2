#ifndef RECORDING_RECORDING_H
#define RECORDING_RECORDING_H

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/file_descriptor.h"
#include "common/monotonic_condition.h"
#include "recording/lines.h"

namespace recording {

// Records a bus in a file. Its own thread writes the file several times a second, so that no caller
// waits for the disk. An error ends the recording with one line on standard error. Thread-safe.
class Recording {
public:
    // Appends to the file. Unless `invocation` is empty, first empties a regular file that another
    // invocation of orvin-record began. Throws std::exception with a reason of one line.
    explicit Recording(const std::string& pathOfFile, const std::string& invocation);
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    // Throws std::bad_alloc.
    void append(const Moment& moment, const Call& call);

    // Appends a transfer callback with result 0. Makes no system call, unless another thread
    // appends at the same moment. Throws std::bad_alloc.
    void appendAcknowledgement(const Moment& moment, const vanid_t& device, std::uint32_t packet);

    // Stops recording. The first call prints the reason on standard error.
    void fail(const std::string& reason);

    // Stops recording and waits until all entries are written, at most kLongestWrite.
    void finish();

private:
    struct Entry {
        Moment moment;
        std::unique_ptr<const Call> call;  // null: `device` acknowledges `packet`
        vanid_t device;
        std::uint32_t packet;
    };

    enum class State {
        Open,       // append accepts entries
        Failed,     // no entry is accepted or written any more
        Finishing,  // the writer writes the pending entries and ends
        Finished,   // the writer has ended
    };

    void emptyUnlessBegunBy(const std::string& invocation) const;
    void append(Entry entry);
    void runWriter();
    State takeBatch();
    void writeBatch(bool isLast);
    bool write(const std::string& text);

    const std::string path;
    FileDescriptor file;
    Lines lines;  // only the writer uses lines and batch
    std::vector<Entry> batch;

    std::mutex mutex;  // guards pending and state
    std::vector<Entry> pending;
    State state = State::Open;
    MonotonicCondition changed;

    std::thread writer;
};

// Writes the line to standard error, unless that would block.
void complain(const std::string& line);

// The number of the calling thread, from 1, in the order of the threads' first calls.
std::uint32_t threadNumber();

}  // namespace recording

#endif
