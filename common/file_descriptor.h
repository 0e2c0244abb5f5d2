#ifndef COMMON_FILE_DESCRIPTOR_H
#define COMMON_FILE_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

// Owns an open file, or none, and closes it on destruction. Not thread-safe.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int opened) : number(opened) {}  // the result of open; -1: none
    FileDescriptor(FileDescriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(number, other.number);
        return *this;
    }
    ~FileDescriptor() { close(); }

    bool isOpen() const { return number >= 0; }
    int get() const { return number; }

    // False, with errno set, if written data may be lost. True if no file is open.
    bool close() {
        const int closed = std::exchange(number, -1);
        return closed < 0 || ::close(closed) == 0;
    }

private:
    int number = -1;
};

#endif
