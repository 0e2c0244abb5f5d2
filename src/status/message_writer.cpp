#include "status/message_writer.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "common/file_descriptor.h"
#include "core/console.h"

MessageWriter* MessageWriter::theInstance = nullptr;

namespace {

// The message file is replaced from here, so it must be on the same file system as /tmp.
constexpr char kTemporaryFileTemplate[] = "/tmp/talmfwXXXXXX";

// Writes the message with one call and closes the file in any case. False, with the reason printed,
// when the file did not take the whole message.
bool writeAndClose(FileDescriptor file, const std::string& message) {
    const ssize_t written = write(file.get(), message.data(), message.size());
    file.close();
    if (written < 0) {
        printLine("Error at write message: %s", strerror(errno));
        return false;
    }
    if (static_cast<size_t>(written) < message.size()) {
        printLine("Incomplete write for message: %s", message.c_str());
        return false;
    }
    return true;
}

}  // namespace

MessageWriter* MessageWriter::init(const std::string& file) {
    if (theInstance == nullptr) {
        theInstance = new MessageWriter(file);
    }
    return theInstance;
}

MessageWriter* MessageWriter::instance() {
    if (theInstance == nullptr) {
        throw std::runtime_error("MessageWriter class not initialized");
    }
    return theInstance;
}

MessageWriter::MessageWriter(const std::string& file) : messageFile(file) {
    if (mutex.init(Mutex::Kind::Default) != 0) {
        throw std::runtime_error("could not initialize message mutex!");
    }
}

MessageWriter::~MessageWriter() {
    mutex.destroy();
    theInstance = nullptr;
}

void MessageWriter::write(const std::string& message) {
    if (messageFile.empty()) {
        return;
    }
    const int lockResult = mutex.lock();
    if (lockResult != 0) {
        printLine("Could not lock message mutex for message \"%s\": %s", message.c_str(),
                  strerror(lockResult));
        return;
    }
    replaceMessageFile(message);
    mutex.unlock();
}

void MessageWriter::replaceMessageFile(const std::string& message) {
    char temporaryFile[sizeof kTemporaryFileTemplate];
    memcpy(temporaryFile, kTemporaryFileTemplate, sizeof kTemporaryFileTemplate);
    FileDescriptor file(mkstemp(temporaryFile));
    if (!file.isOpen()) {
        printLine("Could not create temporary file %s: %s", temporaryFile, strerror(errno));
        return;
    }
    // After a failed write the temporary file stays behind, to be looked at.
    if (!writeAndClose(std::move(file), message)) {
        return;
    }
    if (rename(temporaryFile, messageFile.c_str()) != 0) {
        printLine("Could not apply message to file %s: %s", messageFile.c_str(), strerror(errno));
        unlink(temporaryFile);
    }
}
