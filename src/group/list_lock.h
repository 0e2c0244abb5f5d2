#ifndef GROUP_LIST_LOCK_H
#define GROUP_LIST_LOCK_H

#include "group/orvin_group.h"

// Holds the mutex of the group's device list for a scope.
class SCOPED_CAPABILITY ListLock {
public:
    explicit ListLock(OrvinGroup& lockedGroup) ACQUIRE(lockedGroup.listMutex) : group(lockedGroup) {
        group.lockList();
    }
    ~ListLock() RELEASE() { group.unlockList(); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

private:
    OrvinGroup& group;
};

#endif
