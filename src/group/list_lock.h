#ifndef GROUP_LIST_LOCK_H
#define GROUP_LIST_LOCK_H

#include "group/orvin_group.h"

// Holds the group's list mutex for a scope.
class SCOPED_CAPABILITY ListLock {
public:
    explicit ListLock(OrvinGroup& group) ACQUIRE(group.listMutex) : group_(group) {
        group.lockList();
    }
    ~ListLock() RELEASE() { group_.unlockList(); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

private:
    OrvinGroup& group_;
};

#endif
