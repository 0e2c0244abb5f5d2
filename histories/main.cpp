// orvin-histories: runs the tool through bus histories, in virtual time, and reports those that
// show what they must not.

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <vector>

#include "histories/scenarios.h"
#include "histories/search.h"

namespace {

using histories::Fault;
using histories::History;
using histories::Scenario;
using histories::Share;

// What one process has to say at its end.
struct Outcome {
    std::uint64_t ran = 0;
    std::uint64_t found = 0;
};

constexpr std::uint64_t kShownFindings = 3;  // of each process; of the rest one line
constexpr unsigned kSecondsPerHistory = 60;  // of real time; a history takes far less than one

// What each process is at, where the others can read it when it dies.
struct Slot {
    char text[512];
};

std::string nameOf(const Scenario& scenario, const std::vector<Fault>& faults) {
    std::string text = scenario.name;
    for (const Fault& fault : faults) {
        text += ", fault at " + describe(fault);
    }
    return text;
}

void show(const Scenario& scenario, const std::vector<Fault>& faults, const History& history,
          const std::vector<std::string>& violations, bool whole) {
    std::string text = "--- " + nameOf(scenario, faults) + '\n';
    for (const std::string& violation : violations) {
        text += "WRONG: " + violation + '\n';
    }
    std::fputs((text + (whole ? describe(scenario, history) : "")).c_str(), stderr);
}

// One process's share. Returns its exit status.
int work(const std::function<std::uint64_t(Share, const histories::Watch&)>& search,
         const Share& share, Slot& slot, int out) {
    Outcome outcome;
    histories::Watch watch;
    watch.begins = [&](const Scenario& scenario, const std::vector<Fault>& faults) {
        std::snprintf(slot.text, sizeof slot.text, "%s", nameOf(scenario, faults).c_str());
        alarm(kSecondsPerHistory);
    };
    watch.found = [&](const auto&... finding) {
        show(finding..., ++outcome.found <= kShownFindings);
    };
    outcome.ran = search(share, watch);
    return write(out, &outcome, sizeof outcome) == sizeof outcome ? 0 : 1;
}

// Shares the search among processes and adds up what they tell.
Outcome searchWith(unsigned jobs,
                   const std::function<std::uint64_t(Share, const histories::Watch&)>& search,
                   std::uint64_t sparse) {
    int ends[2];
    auto* const slots = static_cast<Slot*>(mmap(
        nullptr, jobs * sizeof(Slot), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (slots == MAP_FAILED || pipe(ends) != 0) {
        return {0, 1};
    }
    std::map<pid_t, unsigned> workers;
    for (unsigned job = 0; job < jobs; ++job) {
        const pid_t worker = fork();
        if (worker == 0) {
            _exit(work(search, {job * sparse, jobs * sparse}, slots[job], ends[1]));
        }
        workers[worker] = job;
    }
    close(ends[1]);
    Outcome all;
    Outcome one;
    while (read(ends[0], &one, sizeof one) == sizeof one) {
        all.ran += one.ran;
        all.found += one.found;
    }
    int status = 0;
    for (pid_t worker = 0; (worker = wait(&status)) > 0;) {
        if (status != 0) {
            ++all.found;
            std::fprintf(stderr, "--- %s\nWRONG: died or hung there\n",
                         slots[workers[worker]].text);
        }
    }
    return all;
}

int report(const char* what, const Outcome& outcome) {
    std::printf("%s: %llu histories, %llu wrong\n", what,
                static_cast<unsigned long long>(outcome.ran),
                static_cast<unsigned long long>(outcome.found));
    return outcome.found == 0 && outcome.ran > 0 ? 0 : 1;
}

int showSeed(std::uint32_t seed) {
    const histories::RandomCase random = histories::randomCase(seed);
    const History history = run(random.scenario, random.faults);
    const auto wrong = violations(random.scenario, random.faults, history);
    show(random.scenario, random.faults, history, wrong, true);
    return wrong.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Runs the upgrade tool through bus histories and checks what it makes of them.",
                 "orvin-histories");
    app.require_subcommand(1);
    unsigned jobs = 2;
    std::uint64_t sparse = 1;
    app.add_option("--jobs", jobs, "Processes to share the work")->check(CLI::Range(1, 256));
    app.add_option("--one-in", sparse, "Of an exhaustive search run only one history in so many")
        ->check(CLI::PositiveNumber);

    CLI::App* const exhaustive = app.add_subcommand(
        "exhaustive", "Every fault at every call of the base histories, and every pair");
    CLI::App* const random = app.add_subcommand("random", "Random histories");
    std::uint32_t first = 0;
    std::uint32_t count = 100'000;
    random->add_option("--first", first, "The first seed");
    random->add_option("--count", count, "How many seeds");
    std::uint32_t seed = 0;
    CLI::App* const one = app.add_subcommand("seed", "Show the history of one seed");
    one->add_option("seed", seed)->required();
    CLI11_PARSE(app, argc, argv);

    if (one->parsed()) {
        return showSeed(seed);
    }
    if (exhaustive->parsed()) {
        const int single =
            report("single faults", searchWith(jobs, histories::searchSingleFaults, sparse));
        return report("pairs of faults", searchWith(jobs, histories::searchPairs, sparse)) | single;
    }
    return report("random", searchWith(
                                jobs,
                                [&](Share share, const histories::Watch& watch) {
                                    return histories::searchSeeds(first, count, share, watch);
                                },
                                1));
}
