#include "files/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {

constexpr mode_t kNewFileMode = 0666;  // less the umask

bool writeAndClose(int file, const std::string& bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = write(file, bytes.data() + written, bytes.size() - written);
        if (count < 0) {
            const int error = errno;
            close(file);
            errno = error;
            return false;
        }
        written += static_cast<std::size_t>(count);
    }
    return close(file) == 0;
}

mode_t defaultMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return kNewFileMode & ~mask;
}

}  // namespace

bool replaceFile(const std::string& path, const std::string& bytes) {
    std::error_code ignored;
    const std::filesystem::path resolved = std::filesystem::weakly_canonical(path, ignored);
    const std::string target = resolved.empty() ? path : resolved.string();
    struct stat old {};
    const bool exists = stat(target.c_str(), &old) == 0;
    if (exists && !S_ISREG(old.st_mode)) {
        const int file = open(target.c_str(), O_WRONLY);
        return file >= 0 && writeAndClose(file, bytes);
    }
    std::string temporary = target + ".XXXXXX";
    const int file = mkstemp(temporary.data());
    if (file < 0) {
        return false;
    }
    fchmod(file, exists ? old.st_mode : defaultMode());
    if (writeAndClose(file, bytes) && std::rename(temporary.c_str(), target.c_str()) == 0) {
        return true;
    }
    const int error = errno;
    unlink(temporary.c_str());
    errno = error;
    return false;
}
