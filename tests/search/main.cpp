// fault-search: runs the tool with faults at its bus calls, in virtual time, and reports the runs
// that break a promise.
//
//     fault-search [repeat|check] single|lasting|pairs|status|interleavings|allocations [PART
//     PARTS]
//
// runs all cases, or only part PART (from 0) of PARTS. To run a single case, give its number as
// PART of 99999999. With `repeat`, it instead reports the runs that differ on the bus file that
// `orvin-recording bus` makes of them; with `check`, those in which `orvin-recording check` blames
// the bus libraries without reason.

#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <map>

#include "search/every_fault.h"
#include "search/interleaving.h"
#include "search/promises.h"
#include "search/repeat.h"

namespace {

std::string current;  // the running case, printed if the program crashes or hangs

// Bypasses write, because this program's own goes to the files in memory.
void nameCurrent(int /*signal*/) {
    _exit(syscall(SYS_write, STDERR_FILENO, current.data(), current.size()) < 0 ? 1 : 2);
}

// The part of the cases to run, and its results.
struct Search {
    std::uint64_t part = 0;
    std::uint64_t parts = 1;
    std::uint64_t next = 0;
    std::uint64_t ran = 0;
    std::uint64_t wrong = 0;
    std::vector<std::string> (*findWrong)(const Case&, const ToolRun&) = brokenPromises;

    void visit(const std::function<Case()>& make) {
        constexpr unsigned kSecondsPerCase = 60;  // in real time; a case needs far less than one
        const std::string number = std::to_string(next);
        if (next++ % parts == part) {
            ++ran;
            current = number + "\nWRONG: dies or hangs\n";
            alarm(kSecondsPerCase);
            check(number, make());
        }
    }

    void check(const std::string& number, const Case& searched) {
        const ToolRun run = runCase(searched);
        const std::vector<std::string> wrongs = findWrong(searched, run);
        if (wrongs.empty()) {
            return;
        }
        std::cerr << number << ": " << searched.name << '\n';
        for (const std::string& what : wrongs) {
            std::cerr << "WRONG: " << what << '\n';
        }
        if (++wrong == 1) {
            std::cerr << run.trace() << run.console << "exit status: " << run.exitStatus << '\n';
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    Search search;
    const std::map<std::string, decltype(search.findWrong)> ways = {
        {"repeat", differencesWhenRepeated}, {"check", wrongAccusations}};
    const auto way = ways.find(argc > 1 ? argv[1] : "");
    if (way != ways.end()) {
        search.findWrong = way->second;
        --argc;
        ++argv;
    }
    const std::map<std::string, void (*)(const Visit&)> searches = {
        {"single", forEachSingle},
        {"pairs", forEachPair},
        {"lasting", forEachLasting},
        {"status", forEachStatusFault},
        {"interleavings", forEachInterleaving},
        {"allocations", forEachAllocation}};
    const auto chosen = searches.find(argc > 1 ? argv[1] : "");
    if (chosen == searches.end() || argc == 3 || argc > 4) {
        std::cerr << "Usage: fault-search [repeat|check] "
                     "single|lasting|pairs|status|interleavings|allocations [PART PARTS]\n";
        return 2;
    }
    if (argc == 4) {
        search.part = std::stoull(argv[2]);
        search.parts = std::stoull(argv[3]);
    }

    for (const int signal : {SIGALRM, SIGSEGV, SIGABRT}) {
        std::signal(signal, nameCurrent);
    }
    chosen->second([&](const std::function<Case()>& make) { search.visit(make); });
    std::cout << search.ran << " cases, " << search.wrong << " wrong\n";
    return search.wrong == 0 && search.ran > 0 ? 0 : 1;
}
