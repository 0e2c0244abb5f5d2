#ifndef SIM_BUS_FILE_LOCKED_FILE_H
#define SIM_BUS_FILE_LOCKED_FILE_H

#include <cstdio>
#include <memory>
#include <string>

namespace sim {

// A bus file that one connection holds, as it would hold the hardware. Any other connection to the
// file, in this process or another, fails to open until this object or its process is gone.
//
// The lock is on the file itself, so that nothing is left beside it and a read-only file or
// directory can be used, and the system drops the lock with the process. replace() locks the
// new file before that takes the old one's place.
class LockedFile {
public:
    // Throws BusFileError when it is no regular file, cannot be opened or is in use.
    explicit LockedFile(std::string name);

    // The whole text. Throws BusFileError.
    std::string read() const;

    // As replaceFile.
    bool replace(const std::string& text);

private:
    struct Close {
        void operator()(std::FILE* open) const { std::fclose(open); }
    };
    using Stream = std::unique_ptr<std::FILE, Close>;

    void open();
    bool isAtItsPath() const;

    const std::string path;
    Stream stream;
};

}  // namespace sim

#endif
