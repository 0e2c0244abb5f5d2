#ifndef GROUP_LIST_LOCK_H
#define GROUP_LIST_LOCK_H

#include "group/orvin_group.h"

// Holds the mutex of one of the group's lists for a scope.
class SCOPED_CAPABILITY ListLock {
public:
    ListLock(OrvinGroup& lockedGroup, Mutex& mutex) ACQUIRE(mutex)
        : group(lockedGroup), isFullList(&mutex == &lockedGroup.fullListMutex) {
        isFullList ? group.lockFullList() : group.lockList();
    }
    ~ListLock() RELEASE() { isFullList ? group.unlockFullList() : group.unlockList(); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

private:
    OrvinGroup& group;
    const bool isFullList;
};

#endif
