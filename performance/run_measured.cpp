// Runs a command and prints its processor time and peak memory as one line of JSON on standard
// error. Linked statically and small: until it has started the command, the child's memory counts
// as the command's.
//
//     run-measured COMMAND...

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace {

long microseconds(const timeval& time) {
    return time.tv_sec * 1'000'000L + time.tv_usec;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return 2;
    }
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[1], argv + 1);
        _exit(127);
    }
    int status = 0;
    rusage used{};
    if (wait4(child, &status, 0, &used) != child) {
        return 2;
    }
    std::fprintf(stderr, "\n{\"cpu_us\": %ld, \"peak_kb\": %ld, \"status\": %d}\n",
                 microseconds(used.ru_utime) + microseconds(used.ru_stime), used.ru_maxrss,
                 WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return 0;
}
