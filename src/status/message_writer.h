#ifndef STATUS_MESSAGE_WRITER_H
#define STATUS_MESSAGE_WRITER_H

#include <string>

#include "core/mutex.h"

// Writes the one-line status message file that a supervising service follows. Every message
// replaces the file by a rename, so a reader always finds one whole message.
class MessageWriter {
public:
    // Creates the process's writer for the message file at `file` (empty: writes do nothing). Once
    // there is one, returns it and ignores the path. Main thread only.
    // Throws std::runtime_error when the mutex cannot be initialised; there is no writer then.
    static MessageWriter* init(const std::string& file);

    // The process's writer. Throws std::runtime_error while there is none.
    static MessageWriter* instance();

    explicit MessageWriter(const std::string& file);
    ~MessageWriter();  // main thread only, while no other thread writes
    MessageWriter(const MessageWriter&) = delete;
    MessageWriter& operator=(const MessageWriter&) = delete;

    // Makes `message`, to the byte, the content of the message file. Any thread; takes the writer's
    // mutex. A failure is reported on standard output and leaves the file as it was.
    void write(const std::string& message);

private:
    void replaceMessageFile(const std::string& message) REQUIRES(mutex);

    static MessageWriter* theInstance;

    Mutex mutex;  // held for one whole write
    const std::string messageFile;
};

#endif
