// fault-search: runs the tool with faults at its bus calls, in virtual time, and reports the runs
// that break a promise.
//
//     fault-search single|lasting|pairs|status|interleavings|allocations [PART PARTS
//     [repeat|check]]
//
// runs all cases, or only part PART (from 0) of PARTS. To run a single case, give its number as
// PART of 99999999. With `repeat`, it instead reports the runs that differ on the bus file that
// `orvin-recording bus` makes of them; with `check`, those in which `orvin-recording check` blames
// the bus libraries without reason.

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iostream>
#include <limits>
#include <map>
#include <tuple>

#include "search/case.h"

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
    Findings (*findWrong)(const Case&, const ToolRun&) = nullptr;
    std::uint64_t next = 0;
    std::uint64_t ran = 0;
    std::uint64_t wrong = 0;

    // The case, or that with one more fault.
    void visit(const Case& searched, const Fault* more = nullptr) {
        constexpr unsigned kSecondsPerCase = 60;  // in real time; a case needs far less than one
        const std::string number = std::to_string(next);
        if (next++ % parts == part) {
            ++ran;
            current = number + "\nWRONG: dies or hangs\n";
            alarm(kSecondsPerCase);
            check(number, more == nullptr ? searched : searched.with(*more));
        }
    }

    void check(const std::string& number, const Case& searched) {
        const ToolRun run = runCase(searched);
        const Findings wrongs = findWrong(searched, run);
        if (wrongs.empty()) {
            return;
        }
        std::cerr << number << ": " << searched.name << '\n';
        for (const std::string& what : wrongs) {
            std::cerr << "WRONG: " << what << '\n';
        }
        if (++wrong == 1) {
            std::cerr << run.trace() << run.system.console << "exit status: " << run.exitStatus
                      << '\n';
        }
    }
};

// Each case, alone and with each of its faults.
void visitSingle(Search& search, const std::vector<Case>& cases, FaultsOf all) {
    for (const Case& base : cases) {
        search.visit(base);
        for (const Fault& fault : all(base, 0)) {
            search.visit(base, &fault);
        }
    }
}

// Each case with every pair of faults: the second one at any call of the run with the first.
void visitPairs(Search& search, const std::vector<Case>& cases, FaultsOf all) {
    for (const Case& base : cases) {
        for (const Fault& first : all(base, 0)) {
            const Case one = base.with(first);
            for (const Fault& second : all(one, first.call)) {
                // Of two faults of the bus at the same call, the order does not matter.
                if (first.call < second.call || first.place == Place::Lock ||
                    std::tie(first.place, first.device) < std::tie(second.place, second.device)) {
                    search.visit(one, &second);
                }
            }
        }
    }
}

// Each fault stays from its call on: for a few calls, for many, for ever. Where it ends, nothing
// else goes wrong, and each device is new or named.
void visitLasting(Search& search) {
    constexpr std::size_t kForEver = std::numeric_limits<std::size_t>::max();
    for (const Case& base : baseCases()) {
        for (Fault fault : faultsOf(base, 0)) {
            fault.harm = std::max(fault.harm, Harm::Device);
            for (const std::size_t last : {fault.call + 3, fault.call + 40, kForEver}) {
                fault.last = last;
                search.visit(base, &fault);
            }
        }
    }
}

// A base case with every failure of a status message.
void visitStatusFaults(Search& search) {
    for (const std::string call : {"mkstemp", "write", "rename"}) {
        for (const int error : {EACCES, MemorySystem::kHalfOfIt}) {
            for (int number = 1; number <= 10; ++number) {
                Case failing = baseCases().front();
                failing.name = call + " #" + std::to_string(number);
                failing.setup.errors = {{failing.name, error}};
                search.visit(failing);
            }
        }
    }
}

// Each base case with every allocation of the tool failing.
void visitAllocations(Search& search) {
    for (Case base : baseCases()) {
        constexpr int kNever = std::numeric_limits<int>::max();
        base.setup.failingAllocation = kNever;
        const int allocations = kNever - runCase(base).allocationsLeft;
        base.harm = Harm::AllDevices;
        for (int number = 1; number <= allocations; ++number) {
            base.setup.failingAllocation = number;
            search.visit(base);
        }
    }
}

const std::map<std::string, void (*)(Search&)> searches = {
    {"single", [](Search& search) { visitSingle(search, baseCases(), faultsOf); }},
    {"pairs", [](Search& search) { visitPairs(search, baseCases(), faultsOf); }},
    {"lasting", visitLasting},
    {"status", visitStatusFaults},
    {"interleavings",
     [](Search& search) {
         visitSingle(search, interleavingCases(), callbacksOf);
         visitPairs(search, interleavingCases(), callbacksOf);
     }},
    {"allocations", visitAllocations}};

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, decltype(Search::findWrong)> questions = {
        {"", brokenPromises}, {"repeat", differencesWhenRepeated}, {"check", wrongAccusations}};
    const auto chosen = searches.find(argc > 1 ? argv[1] : "");
    const auto question = questions.find(argc > 4 ? argv[4] : "");
    if (chosen == searches.end() || question == questions.end() || argc == 3 || argc > 5) {
        std::cerr << "The usage is in tests/search/main.cpp.\n";
        return 2;
    }
    Search search;
    search.findWrong = question->second;
    if (argc > 3) {
        search.part = std::stoull(argv[2]);
        search.parts = std::stoull(argv[3]);
    }
    for (const int signal : {SIGALRM, SIGSEGV, SIGABRT}) {
        std::signal(signal, nameCurrent);
    }
    chosen->second(search);
    std::cout << search.ran << " cases, " << search.wrong << " wrong\n";
    return search.wrong == 0 && search.ran > 0 ? 0 : 1;
}
