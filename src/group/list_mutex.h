#ifndef GROUP_LIST_MUTEX_H
#define GROUP_LIST_MUTEX_H

#include "core/mutex.h"

// The mutex of one of the group's lists. What fails is printed with the list's name, and the caller
// goes on as if it had succeeded.
class CAPABILITY("mutex") ListMutex {
public:
    // The name is a literal, such as "Orvin list".
    ListMutex(const char* listName, Mutex::Kind kind);

    void destroy() { mutex.destroy(); }

    void lock() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS {
        if (mutex.lock() != 0) {
            complain("lock");
        }
    }
    void unlock() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
        if (mutex.unlock() != 0) {
            complain("unlock");
        }
    }

private:
    void complain(const char* operation) const;

    Mutex mutex;
    const char* const name;
};

// Holds the mutex for a scope.
class SCOPED_CAPABILITY ListLock {
public:
    explicit ListLock(ListMutex& listMutex) ACQUIRE(listMutex) : mutex(listMutex) { mutex.lock(); }
    ~ListLock() RELEASE() { mutex.unlock(); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

private:
    ListMutex& mutex;
};

#endif
