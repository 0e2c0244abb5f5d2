#ifndef CORE_MUTEX_H
#define CORE_MUTEX_H

#include <pthread.h>

#include "core/thread_annotations.h"

// A POSIX mutex that clang's thread-safety analysis knows. Its operations return the system's error
// number, 0 for success: what a failure means is for its owner to say.
class CAPABILITY("mutex") Mutex {
public:
    enum class Kind { Default, Recursive };

    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    int init(Kind kind) {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(
            &attributes, kind == Kind::Recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_DEFAULT);
        const int result = pthread_mutex_init(&mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
        return result;
    }
    void destroy() { pthread_mutex_destroy(&mutex_); }

    int lock() TRY_ACQUIRE(0) { return pthread_mutex_lock(&mutex_); }
    int unlock() RELEASE() { return pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;  // usable even where init fails
};

#endif
