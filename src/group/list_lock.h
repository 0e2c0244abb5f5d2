#ifndef GROUP_LIST_LOCK_H
#define GROUP_LIST_LOCK_H

#include "group/orvin_group.h"

// Each holds one of the group's two mutexes for a scope.

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

class SCOPED_CAPABILITY FullListLock {
public:
    explicit FullListLock(OrvinGroup& group) ACQUIRE(group.fullListMutex) : group_(group) {
        group.lockFullList();
    }
    ~FullListLock() RELEASE() { group_.unlockFullList(); }
    FullListLock(const FullListLock&) = delete;
    FullListLock& operator=(const FullListLock&) = delete;

private:
    OrvinGroup& group_;
};

#endif
