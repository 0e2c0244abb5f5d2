#include "support/system_hooks.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

SystemHooks& SystemHooks::instance() {
    static SystemHooks hooks;
    return hooks;
}

extern "C" int rename(const char* from, const char* to) noexcept {
    if (SystemHooks::instance().beforeRename) {
        SystemHooks::instance().beforeRename(from, to);
    }
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

extern "C" ssize_t read(int file, void* buffer, size_t length) {
    constexpr size_t kPacketBytes = 64;
    if (length == kPacketBytes && SystemHooks::instance().beforePacketRead) {
        SystemHooks::instance().beforePacketRead();
    }
    return syscall(SYS_read, file, buffer, length);
}

extern "C" int fflush(std::FILE* file) {
    using Function = int (*)(std::FILE*);
    static const auto original = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "fflush"));
    const int result = original(file);
    if (file == stdout && SystemHooks::instance().afterFlush) {
        SystemHooks::instance().afterFlush();
    }
    return result;
}

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* attributes) noexcept {
    if (SystemHooks::instance().failingMutexInit > 0 &&
        --SystemHooks::instance().failingMutexInit == 0) {
        return EAGAIN;
    }
    using Function = int (*)(pthread_mutex_t*, const pthread_mutexattr_t*);
    static const auto original = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_mutex_init"));
    return original(mutex, attributes);
}
