#include "sim/bus_file/locked_file.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "common/replace_file.h"
#include "sim/bus_file/bus_file_error.h"

namespace sim {

namespace {

constexpr std::size_t kMaxBytes = 64U
                                  << 20U;  // room for the replay scripts of 63 devices and 1 MiB

BusFileError unreadable() {
    return BusFileError(std::string("cannot be read: ") + std::strerror(errno));
}

// False if another connection has the lock. On a file system without locks, flock fails with
// another error, and the file is used without a lock.
bool lock(std::FILE* file) {
    return flock(fileno(file), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

}  // namespace

LockedFile::LockedFile(std::string name) : path(std::move(name)) {
    // Between open and lock, the connection that held the lock may have replaced the file and
    // ended.
    do {
        open();
        if (!lock(stream.get())) {
            throw BusFileError("in use by another connection");
        }
    } while (!isAtItsPath());
}

// Opens only regular files, because opening a FIFO would block.
void LockedFile::open() {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw BusFileError("not a regular file");
    }
    stream.reset(std::fopen(path.c_str(), "re"));
    if (!stream) {
        throw unreadable();
    }
}

bool LockedFile::isAtItsPath() const {
    struct stat locked {};
    struct stat current {};
    return fstat(fileno(stream.get()), &locked) == 0 && stat(path.c_str(), &current) == 0 &&
           locked.st_dev == current.st_dev && locked.st_ino == current.st_ino;
}

std::string LockedFile::read() const {
    std::string text;
    char chunk[4096];
    while (const std::size_t count = std::fread(chunk, 1, sizeof chunk, stream.get())) {
        text.append(chunk, count);
        if (text.size() > kMaxBytes) {
            throw BusFileError("larger than 64 MiB");
        }
    }
    if (std::ferror(stream.get()) != 0) {
        throw unreadable();
    }
    return text;
}

bool LockedFile::replace(const std::string& text) {
    Stream next;
    const auto lockNext = [&next](const std::string& newPath) {
        next.reset(std::fopen(newPath.c_str(), "re"));
        return next && lock(next.get());
    };
    if (!replaceFile(path, text, lockNext)) {
        return false;
    }
    stream = std::move(next);
    return true;
}

}  // namespace sim
