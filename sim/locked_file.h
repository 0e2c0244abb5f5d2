#ifndef SIM_LOCKED_FILE_H
#define SIM_LOCKED_FILE_H

#include <cstdio>
#include <memory>
#include <string>

namespace sim {

// A bus file in the hands of one connection, as the hardware would be. Another one on the same file
// fails to open, in this process or in another, until this object or its process is gone.
//
// The lock is on the file itself, so that nothing is left beside it and a read-only file or
// directory can be used, and the system drops the lock with the process. A file that replaces the
// locked one is locked before it does.
class LockedFile {
public:
    // Throws BusFileError when it is no regular file, cannot be opened or is in use.
    explicit LockedFile(std::string path);

    // The whole text. Throws BusFileError.
    std::string read() const;

    // As replaceFile.
    bool replace(const std::string& text);

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    using Stream = std::unique_ptr<std::FILE, Close>;

    void open();
    bool isAtItsPath() const;

    const std::string path_;
    Stream stream_;
};

}  // namespace sim

#endif
