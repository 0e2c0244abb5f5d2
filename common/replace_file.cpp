#include "common/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "common/file_descriptor.h"

namespace {

constexpr mode_t kNewFileMode = 0666;  // less the umask

// Keeps the signals that would end the process waiting, so that it can remove its temporary file
// first. That asks for no handler, which would belong to the whole process, and works on every file
// system, unlike a file without a name. A process of several threads gets them in another one.
class HeldSignals {
public:
    HeldSignals() {
        pthread_sigmask(SIG_BLOCK, nullptr, &before);
        sigemptyset(&held);
        for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
            struct sigaction action {};
            sigaction(number, nullptr, &action);
            if (action.sa_handler == SIG_DFL && sigismember(&before, number) == 0) {
                sigaddset(&held, number);
            }
        }
        pthread_sigmask(SIG_BLOCK, &held, nullptr);
    }
    ~HeldSignals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    // Whether one of them ends the process as soon as this object is gone.
    bool oneWaits() const {
        sigset_t waiting;
        sigpending(&waiting);
        sigandset(&waiting, &waiting, &held);
        return sigisemptyset(&waiting) == 0;
    }

private:
    sigset_t held{};
    sigset_t before{};
};

bool writeAll(const FileDescriptor& file, const void* bytes, std::size_t length) {
    const char* next = static_cast<const char*>(bytes);
    while (length > 0) {
        const ssize_t count = ::write(file.get(), next, length);
        if (count < 0) {
            return false;
        }
        next += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

// Removes the file, unless it got another name by then.
struct TemporaryName {
    std::string path;

    ~TemporaryName() {
        const int error = errno;
        if (!path.empty()) {
            unlink(path.c_str());
        }
        errno = error;
    }
};

// The path without links at its end, even where the last one leads to no file. Empty, with the
// reason in errno, when they go in a circle.
std::string followLinks(const std::string& path) {
    constexpr int kMostLinks = 40;  // as the system
    std::filesystem::path file = path;
    for (int links = 0; links <= kMostLinks; ++links) {
        std::error_code noLink;
        const std::filesystem::path target = std::filesystem::read_symlink(file, noLink);
        if (noLink) {
            return file.string();
        }
        file = file.parent_path() / target;
    }
    errno = ELOOP;
    return "";
}

mode_t defaultMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return kNewFileMode & ~mask;
}

bool writeInPlace(const std::string& path, const std::function<bool(const WriteBytes&)>& produce) {
    // Without O_NONBLOCK, to open a pipe is to wait for its reader.
    FileDescriptor file(open(path.c_str(), O_WRONLY | O_NONBLOCK));
    if (file.isOpen()) {
        fcntl(file.get(), F_SETFL, 0);
    }
    return file.isOpen() && produce([&](const void* bytes, std::size_t length) {
               return writeAll(file, bytes, length);
           }) &&
           file.close();
}

bool writeBeside(const std::string& path, mode_t mode,
                 const std::function<bool(const WriteBytes&)>& produce,
                 const std::function<bool(const std::string&)>& prepare) {
    const HeldSignals signals;
    TemporaryName temporary{path + ".XXXXXX"};
    FileDescriptor file(mkstemp(temporary.path.data()));
    if (!file.isOpen()) {
        temporary.path.clear();
        return false;
    }
    fchmod(file.get(), mode);
    const auto write = [&](const void* bytes, std::size_t length) {
        if (signals.oneWaits()) {
            errno = EINTR;
            return false;
        }
        return writeAll(file, bytes, length);
    };
    if (!produce(write) || !file.close() || (prepare && !prepare(temporary.path)) ||
        std::rename(temporary.path.c_str(), path.c_str()) != 0) {
        return false;
    }
    temporary.path.clear();
    return true;
}

}  // namespace

bool replaceFile(const std::string& path, const std::function<bool(const WriteBytes&)>& produce,
                 const std::function<bool(const std::string&)>& prepare) {
    struct stat old {};
    const bool exists = stat(path.c_str(), &old) == 0;
    if (exists && !S_ISREG(old.st_mode)) {
        return writeInPlace(path, produce);
    }
    const std::string target = followLinks(path);
    return !target.empty() &&
           writeBeside(target, exists ? old.st_mode : defaultMode(), produce, prepare);
}
