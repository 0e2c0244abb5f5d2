#include "histories/memory_system.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <streambuf>

namespace histories {

namespace {

constexpr int kFirstFile = 1 << 20;  // beyond all of the system's own
constexpr char kPrefix[] = "mem:";
constexpr char kTemporary[] = "/tmp/talmfw";

struct OpenFile {
    std::string name;
    std::size_t position = 0;
};

std::map<int, OpenFile> openFiles;

bool isOurs(const std::string& name) {
    return name.rfind(kPrefix, 0) == 0 || name.rfind(kTemporary, 0) == 0;
}

OpenFile* find(int file) {
    const auto found = openFiles.find(file);
    return found == openFiles.end() ? nullptr : &found->second;
}

int openNew(const std::string& name) {
    int file = kFirstFile;
    while (openFiles.count(file) != 0) {
        ++file;
    }
    openFiles[file] = OpenFile{name, 0};
    return file;
}

std::string& contentOf(const OpenFile& file) {
    return MemorySystem::instance().files[file.name];
}

ssize_t writeConsole(void* /*cookie*/, const char* bytes, std::size_t length) {
    MemorySystem::instance().console.append(bytes, length);
    return static_cast<ssize_t>(length);
}

class ConsoleBuffer : public std::streambuf {
protected:
    int_type overflow(int_type character) override {
        MemorySystem::instance().console += traits_type::to_char_type(character);
        return character;
    }
    std::streamsize xsputn(const char* bytes, std::streamsize length) override {
        MemorySystem::instance().console.append(bytes, static_cast<std::size_t>(length));
        return length;
    }
};

}  // namespace

MemorySystem& MemorySystem::instance() {
    static MemorySystem system;
    return system;
}

void MemorySystem::reset() {
    files.clear();
    messages.clear();
    console.clear();
    statusFault = StatusFault();
    messagesBegun = 0;
    openFiles.clear();
}

void MemorySystem::captureConsole(const std::function<void()>& action) {
    static ConsoleBuffer buffer;
    static std::FILE* const stream = [] {
        std::FILE* const file =
            fopencookie(nullptr, "w", {nullptr, writeConsole, nullptr, nullptr});
        std::setvbuf(file, nullptr, _IONBF, 0);
        return file;
    }();
    std::FILE* const output = stdout;
    std::streambuf* const streamBuffer = std::cout.rdbuf(&buffer);
    stdout = stream;
    action();
    stdout = output;
    std::cout.rdbuf(streamBuffer);
}

}  // namespace histories

using histories::MemorySystem;
using histories::StatusFault;

extern "C" int open(const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    if (!histories::isOurs(name)) {
        return static_cast<int>(syscall(SYS_openat, AT_FDCWD, name, flags, mode));
    }
    if (MemorySystem::instance().files.count(name) == 0) {
        errno = ENOENT;
        return -1;
    }
    if ((flags & O_ACCMODE) != O_RDONLY) {
        MemorySystem::instance().messages.emplace_back("(written in place)");
    }
    return histories::openNew(name);
}

extern "C" int mkstemp(char* name) {
    auto& system = MemorySystem::instance();
    ++system.messagesBegun;
    if (system.strikes(StatusFault::Kind::Create)) {
        errno = EACCES;
        return -1;
    }
    const std::string number = std::to_string(1'000'000 + system.messagesBegun).substr(1, 6);
    std::copy(number.begin(), number.end(), name + std::strlen(name) - number.size());
    system.files[name] = "";
    return histories::openNew(name);
}

extern "C" off_t lseek(int file, off_t offset, int origin) noexcept {
    histories::OpenFile* const open = histories::find(file);
    if (open == nullptr) {
        errno = EBADF;
        return -1;
    }
    const auto size = static_cast<off_t>(histories::contentOf(*open).size());
    const off_t position = origin == SEEK_END ? size + offset : offset;
    if (position < 0) {
        errno = EINVAL;
        return -1;
    }
    open->position = static_cast<std::size_t>(position);
    return position;
}

extern "C" ssize_t read(int file, void* buffer, std::size_t length) {
    histories::OpenFile* const open = histories::find(file);
    if (open == nullptr) {
        return syscall(SYS_read, file, buffer, length);
    }
    const std::string& content = histories::contentOf(*open);
    const std::size_t start = std::min(open->position, content.size());
    const std::size_t count = std::min(length, content.size() - start);
    std::memcpy(buffer, content.data() + start, count);
    open->position = start + count;
    return static_cast<ssize_t>(count);
}

extern "C" ssize_t write(int file, const void* bytes, std::size_t length) {
    const histories::OpenFile* const open = histories::find(file);
    if (open == nullptr) {
        return syscall(SYS_write, file, bytes, length);
    }
    if (MemorySystem::instance().strikes(StatusFault::Kind::Write)) {
        errno = ENOSPC;
        return -1;
    }
    const std::size_t taken =
        MemorySystem::instance().strikes(StatusFault::Kind::ShortWrite) ? length / 2 : length;
    histories::contentOf(*open).append(static_cast<const char*>(bytes), taken);
    return static_cast<ssize_t>(taken);
}

extern "C" int close(int file) {
    if (histories::openFiles.erase(file) != 0) {
        return 0;
    }
    return static_cast<int>(syscall(SYS_close, file));
}

extern "C" int rename(const char* from, const char* to) noexcept {
    if (!histories::isOurs(from)) {
        return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
    }
    auto& system = MemorySystem::instance();
    if (system.strikes(StatusFault::Kind::Rename)) {
        errno = EXDEV;
        return -1;
    }
    system.files[to] = system.files[from];
    system.files.erase(from);
    if (std::strcmp(to, MemorySystem::kStatusFile) == 0) {
        system.messages.push_back(system.files[to]);
    }
    return 0;
}

extern "C" int unlink(const char* name) noexcept {
    if (!histories::isOurs(name)) {
        return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, name, 0));
    }
    if (std::strcmp(name, MemorySystem::kStatusFile) == 0) {
        MemorySystem::instance().messages.emplace_back("(removed)");
    }
    return MemorySystem::instance().files.erase(name) != 0 ? 0 : -1;
}
