#include "common/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "common/file_descriptor.h"

namespace {

constexpr mode_t kNewFileMode = 0666;  // before the umask

bool writeAll(const FileDescriptor& file, std::string_view content) {
    while (!content.empty()) {
        const ssize_t count = ::write(file.get(), content.data(), content.size());
        if (count < 0) {
            return false;
        }
        content.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

// Removes the temporary file on destruction, unless `path` was cleared after the rename.
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

// Resolves the symbolic links at the end of the path; the target need not exist. Empty, with the
// reason in errno, if the links form a cycle.
std::string followLinks(const std::string& path) {
    constexpr int kMostLinks = 40;  // the limit of the system
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

bool writeInPlace(const std::string& path, std::string_view content) {
    // Without O_NONBLOCK, opening a pipe blocks until it has a reader.
    FileDescriptor file(open(path.c_str(), O_WRONLY | O_NONBLOCK));
    if (!file.isOpen()) {
        return false;
    }
    fcntl(file.get(), F_SETFL, 0);
    return writeAll(file, content) && file.close();
}

bool writeBeside(const std::string& path, mode_t mode, std::string_view content,
                 const std::function<bool(const std::string&)>& prepare) {
    TemporaryName temporary{path + ".new-XXXXXX"};
    FileDescriptor file(mkstemp(temporary.path.data()));
    if (!file.isOpen()) {
        temporary.path.clear();
        return false;
    }
    fchmod(file.get(), mode);
    if (!writeAll(file, content) || !file.close() || (prepare && !prepare(temporary.path)) ||
        std::rename(temporary.path.c_str(), path.c_str()) != 0) {
        return false;
    }
    temporary.path.clear();
    return true;
}

}  // namespace

bool replaceFile(const std::string& path, std::string_view content,
                 const std::function<bool(const std::string&)>& prepare) {
    struct stat old {};
    const bool exists = stat(path.c_str(), &old) == 0;
    if (exists && !S_ISREG(old.st_mode)) {
        return writeInPlace(path, content);
    }
    const std::string target = followLinks(path);
    return !target.empty() &&
           writeBeside(target, exists ? old.st_mode : defaultMode(), content, prepare);
}
