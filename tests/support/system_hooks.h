// The system calls of the tool that tests look at, or act in the middle of. Everything else in the
// test program goes through them, too, and is left alone.
#ifndef TESTS_SUPPORT_SYSTEM_HOOKS_H
#define TESTS_SUPPORT_SYSTEM_HOOKS_H

#include <functional>
#include <string>

struct SystemHooks {
    // Before a file takes the place of another.
    std::function<void(const std::string& from, const std::string& to)> beforeRename;

    // Before a read of exactly one packet's size: an image's content, nothing else.
    std::function<void()> beforePacketRead;

    // After standard output was flushed.
    std::function<void()> afterFlush;

    // Which initialisation of a mutex fails, counted from 1 as they come; 0: none.
    int failingMutexInit = 0;

    static SystemHooks& instance();
};

#endif
