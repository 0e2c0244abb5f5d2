#ifndef SIM_BUS_FILE_LOCKED_FILE_H
#define SIM_BUS_FILE_LOCKED_FILE_H

#include <cstdio>
#include <memory>
#include <string>

namespace sim {

// A bus file that only one connection can use, like hardware. Any other connection to the file, in
// this or another process, fails to open until this object is destroyed or its process ends.
//
// The lock is on the file itself. So it leaves no lock file, works in read-only directories, and
// ends with the process. replace() locks the new file before it replaces the old one.
class LockedFile {
public:
    // Throws BusFileError if the file is not regular, cannot be opened or is in use.
    explicit LockedFile(std::string name);

    // Returns the whole text. Throws BusFileError.
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
