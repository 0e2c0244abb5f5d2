#ifndef RECORDING_RECORDING_H
#define RECORDING_RECORDING_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/file_descriptor.h"
#include "recording/lines.h"

namespace recording {

// A file with what happens on a bus. A thread of its own writes it several times a second, so that
// no caller waits for a disk. What goes wrong ends the recording, with one line on standard error.
// Any thread may call.
class Recording {
public:
    // Appends to the file, which is emptied before if it is a regular one that another invocation
    // of orvin-record began; without an invocation it is not emptied. Throws std::exception with a
    // reason in one line.
    explicit Recording(const std::string& pathOfFile, const std::string& invocation = "");
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    // Throws std::bad_alloc.
    void append(const Moment& moment, const Call& call);

    // A transfer callback with result 0. Makes no system call. Throws std::bad_alloc.
    void appendAcknowledgement(const Moment& moment, const vanid_t& device, std::uint32_t packet);

    // Takes nothing more; standard error tells the reason, the first time.
    void fail(const std::string& reason);

    // Takes nothing more, and waits until all is written, but not for a disk that does not answer.
    void finish();

private:
    struct Entry {
        Moment moment;
        std::unique_ptr<const Call> call;  // null: an acknowledgement, of the device for the packet
        vanid_t device;
        std::uint32_t packet;
    };

    enum class State {
        Open,       // entries are taken
        Failed,     // none is taken or written any more
        Finishing,  // the writer is to write what is pending, and to end
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
    Lines lines;  // the writer's alone, like the batch
    std::vector<Entry> batch;

    std::mutex mutex;  // guards what follows
    std::vector<Entry> pending;
    State state = State::Open;
    std::condition_variable changed;

    std::thread writer;
};

// Writes the line to standard error, unless that would wait for a reader.
void complain(const std::string& line);

// The number of the calling thread, counted from 1 as they first call.
std::uint32_t threadNumber();

}  // namespace recording

#endif
