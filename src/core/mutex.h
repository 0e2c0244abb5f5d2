#ifndef CORE_MUTEX_H
#define CORE_MUTEX_H

#include <pthread.h>

#include "core/thread_annotations.h"

// A POSIX mutex that clang's thread-safety analysis knows. Its operations return the system's error
// number, 0 for success; the mutex's owner decides what a failure means.
class CAPABILITY("mutex") Mutex {
public:
    enum class Kind { Default, Recursive };

    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    [[nodiscard]] int init(Kind kind) {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(
            &attributes, kind == Kind::Recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_DEFAULT);
        const int result = pthread_mutex_init(&handle, &attributes);
        pthread_mutexattr_destroy(&attributes);
        return result;
    }
    void destroy() { pthread_mutex_destroy(&handle); }

    [[nodiscard]] int lock() TRY_ACQUIRE(0) { return pthread_mutex_lock(&handle); }
    int unlock() RELEASE() { return pthread_mutex_unlock(&handle); }

private:
    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;  // usable even where init fails
};

#endif
