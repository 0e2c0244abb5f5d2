// fault-search: runs the tool with faults at its bus calls, in virtual time, and reports the runs
// that break a promise. One case is had again with --part NUMBER --of 99999999.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "search/case.h"

namespace {

std::string current;  // the case under way, for a program that dies or hangs

void nameCurrent(int /*signal*/) {
    _exit(write(STDERR_FILENO, current.data(), current.size()) < 0 ? 1 : 2);
}

// The part of all cases that is run, and what comes of it.
struct Search {
    std::uint64_t part = 0;
    std::uint64_t parts = 1;
    std::uint64_t next = 0;
    std::uint64_t ran = 0;
    std::uint64_t wrong = 0;

    void visit(const std::function<Case()>& make) {
        constexpr unsigned kSecondsPerCase = 60;  // of real time; a case takes far less than one
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
        const std::vector<std::string> broken = brokenPromises(searched, run);
        if (broken.empty()) {
            return;
        }
        std::cerr << number << ": " << searched.name << '\n';
        for (const std::string& what : broken) {
            std::cerr << "WRONG: " << what << '\n';
        }
        if (++wrong == 1) {
            std::cerr << run.trace() << run.console << "exit status: " << run.exitStatus << '\n';
        }
    }
};

void forEachSeed(const Visit& visit) {
    for (std::uint32_t seed = 0; seed < 100'000; ++seed) {
        visit([&] { return randomCase(seed); });
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Runs the upgrade tool with faults and checks its promises.", "fault-search");
    const std::map<std::string, void (*)(const Visit&)> searches = {
        {"single", forEachSingle}, {"pairs", forEachPair}, {"random", forEachSeed}};
    std::string cases;
    Search search;
    app.add_option("cases", cases, "Which faults")->required()->check(CLI::IsMember(searches));
    app.add_option("--part", search.part, "The part of the cases to run, from 0");
    app.add_option("--of", search.parts, "How many parts")->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);

    for (const int signal : {SIGALRM, SIGSEGV, SIGABRT}) {
        std::signal(signal, nameCurrent);
    }
    searches.at(cases)([&](const std::function<Case()>& make) { search.visit(make); });
    std::cout << search.ran << " cases, " << search.wrong << " wrong\n";
    return search.wrong == 0 && search.ran > 0 ? 0 : 1;
}
