#include "support/memory_system.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/types.h>

#include <algorithm>
#include <boost/algorithm/string/erase.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "support/virtual_time.h"

using namespace std::string_literals;

namespace {

MemorySystem& memory() {
    return MemorySystem::instance();
}

// Empty for the program's other mutexes, which never fail.
std::string numberOf(const pthread_mutex_t* mutex) {
    const auto found = memory().mutexes.find(mutex);
    return found == memory().mutexes.end() ? "" : found->second;
}

bool fails(const char* call, const pthread_mutex_t* mutex) {
    const std::string number = numberOf(mutex);
    return !number.empty() && memory().fails(call + number);
}

int openNew(const std::string& name) {
    static int last = 1 << 20;  // above all numbers of the system
    memory().openFiles[++last].name = name;
    return last;
}

// How many of the bytes to read or write; -1 with errno set.
ssize_t countOf(const char* call, std::size_t bytes) {
    const auto all = static_cast<ssize_t>(bytes);
    if (!memory().fails(call)) {
        return all;
    }
    return errno == MemorySystem::kHalfOfIt ? all / 2 : -1;
}

ssize_t writeConsole(void* /*cookie*/, const char* bytes, std::size_t length) {
    const OutsideTheTool outside;
    memory().console.append(bytes, length);
    memory().tell('|' + std::string(bytes, length));
    memory().fails("print");
    return static_cast<ssize_t>(length);
}

}  // namespace

MemorySystem& MemorySystem::instance() {
    static MemorySystem system;
    return system;
}

void MemorySystem::tell(const std::string& event) {
    events.push_back({sim::VirtualTime::time, held, event});
}

bool MemorySystem::fails(const std::string& call) {
    if (before) {
        before(call);
    }
    const auto found = errors.find(call + " #" + std::to_string(++calls[call]));
    errno = found == errors.end() ? 0 : found->second;
    return errno != 0;
}

std::string captureOutput(const std::function<void()>& action) {
    static std::FILE* const stream =
        fopencookie(nullptr, "w", {nullptr, writeConsole, nullptr, nullptr});
    const std::size_t before = memory().console.size();
    std::FILE* const output = stdout;
    stdout = stream;
    action();
    std::fflush(stdout);
    stdout = output;
    return memory().console.substr(before);
}

// Replaces the operator of the C++ library. Not inlined, because g++ then warns of mismatched
// pairs.
[[gnu::noinline]] void* operator new(std::size_t size) {
    const bool counts = MemorySystem::outside == 0 && MemorySystem::allocationsUntilFailure > 0;
    const bool fails = counts && --MemorySystem::allocationsUntilFailure == 0;
    void* const memory = fails ? nullptr : std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

// The linker redirects calls of a function f to __wrap_f; __real_f is the original. The system's
// headers map names to those with 64.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __wrap_open64(const char* name, int flags, ...) {
    const OutsideTheTool outside;
    const bool fails = memory().fails("open") || memory().files.count(name) == 0;
    const int error = errno != 0 ? errno : ENOENT;
    memory().tell("open "s + name + ((flags & O_ACCMODE) == O_RDONLY ? "" : " for writing") +
                  (fails ? ", which fails" : ""));
    errno = error;
    return fails ? -1 : openNew(name);
}

int __wrap_mkstemp64(char* name) {
    const OutsideTheTool outside;
    if (memory().fails("mkstemp")) {
        return -1;
    }
    const std::string digits = std::to_string(100'000 + memory().files.size());
    digits.copy(name + std::strlen(name) - digits.size(), digits.size());
    memory().files[name] = "";
    return openNew(name);
}

off64_t __wrap_lseek64(int number, off64_t offset, int origin) {
    const OutsideTheTool outside;
    MemorySystem::OpenFile& file = memory().openFiles.at(number);
    if (memory().fails("seek")) {
        return -1;
    }
    const auto content = static_cast<off64_t>(memory().files[file.name].size());
    const off64_t position = (origin == SEEK_END ? content + memory().missing : 0) + offset;
    file.position = static_cast<std::size_t>(position);
    return position;
}

ssize_t __wrap_read(int number, void* buffer, std::size_t length) {
    const OutsideTheTool outside;
    MemorySystem::OpenFile& file = memory().openFiles.at(number);
    const std::string& content = memory().files[file.name];
    const std::size_t start = std::min(file.position, content.size());
    const std::size_t available = content.copy(static_cast<char*>(buffer), length, start);
    const ssize_t count = countOf("read", available);
    file.position = start + static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    return count;
}

ssize_t __wrap_write(int number, const void* bytes, std::size_t length) {
    const OutsideTheTool outside;
    const std::string& name = memory().openFiles.at(number).name;
    const ssize_t count = countOf("write", length);
    memory().files[name].append(static_cast<const char*>(bytes),
                                static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return count;
}

int __wrap_close(int number) {
    const OutsideTheTool outside;
    const auto found = memory().openFiles.find(number);
    if (found == memory().openFiles.end()) {
        return -1;
    }
    if (found->second.name.rfind("mem:", 0) == 0) {  // no temporary file
        memory().tell("close " + found->second.name);
    }
    memory().openFiles.erase(found);
    return 0;
}

int __wrap_rename(const char* from, const char* to) {
    const OutsideTheTool outside;
    if (memory().fails("rename")) {
        return -1;
    }
    const std::string content = memory().files.extract(from).mapped();
    memory().files[to] = content;
    if (to == std::string(MemorySystem::kStatusFile)) {
        const auto& open = memory().openFiles;
        const bool isOpen = !open.empty() && open.rbegin()->second.name == from;
        memory().messages.push_back(content);
        memory().tell("= " + content + (isOpen ? " (the file is still open)" : ""));
    }
    return 0;
}

int __wrap_unlink(const char* name) {
    const OutsideTheTool outside;
    errno = 0;  // a call that succeeds may change it
    return memory().files.erase(name) == 0 ? -1 : 0;
}

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    const OutsideTheTool outside;
    memory().mutexes[mutex] = std::to_string(memory().mutexes.size() + 1);
    return fails("init ", mutex) ? errno : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    const OutsideTheTool outside;
    if (fails("lock ", mutex)) {
        return errno;
    }
    memory().held += numberOf(mutex);
    return __real_pthread_mutex_lock(mutex);
}

// Unlocks even if it returns an error, so that the next lock does not wait forever.
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const OutsideTheTool outside;
    const int result = __real_pthread_mutex_unlock(mutex);
    boost::erase_last(memory().held, numberOf(mutex));  // not there if locking it has failed
    return fails("unlock ", mutex) ? errno : result;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
