// orvin-histories: runs the tool through bus histories, in virtual time, and reports those that
// show what they must not.

#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
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

constexpr std::uint64_t kShownFindings = 3;  // of each process; the rest are only counted

void show(const Scenario& scenario, const std::vector<Fault>& faults, const History& history,
          const std::vector<std::string>& violations) {
    std::string text = "--- " + scenario.name + '\n';
    for (const Fault& fault : faults) {
        text += "fault at " + describe(fault) + '\n';
    }
    for (const std::string& violation : violations) {
        text += "WRONG: " + violation + '\n';
    }
    std::fputs((text + describe(scenario, history)).c_str(), stderr);
}

// Shares the search among processes and adds up what they tell.
Outcome searchWith(unsigned jobs,
                   const std::function<std::uint64_t(Share, const histories::Finding&)>& search,
                   std::uint64_t sparse) {
    int ends[2];
    if (pipe(ends) != 0) {
        return {0, 1};
    }
    for (unsigned job = 0; job < jobs; ++job) {
        if (fork() == 0) {
            Outcome outcome;
            const Share share{job * sparse, jobs * sparse};
            outcome.ran = search(share, [&](const auto&... finding) {
                if (++outcome.found <= kShownFindings) {
                    show(finding...);
                }
            });
            const bool told = write(ends[1], &outcome, sizeof outcome) == sizeof outcome;
            _exit(told ? 0 : 1);
        }
    }
    close(ends[1]);
    Outcome all;
    Outcome one;
    unsigned heard = 0;
    while (read(ends[0], &one, sizeof one) == sizeof one) {
        all.ran += one.ran;
        all.found += one.found;
        ++heard;
    }
    while (wait(nullptr) > 0) {
    }
    all.found += jobs - heard;  // one that died has certainly found something
    return all;
}

int report(const char* what, const Outcome& outcome) {
    std::printf("%s: %llu histories, %llu wrong\n", what,
                static_cast<unsigned long long>(outcome.ran),
                static_cast<unsigned long long>(outcome.found));
    return outcome.found == 0 ? 0 : 1;
}

int showSeed(std::uint32_t seed) {
    const histories::RandomCase random = histories::randomCase(seed);
    const History history = run(random.scenario, random.faults);
    const auto wrong = violations(random.scenario, random.faults, history);
    show(random.scenario, random.faults, history, wrong);
    return wrong.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Runs the upgrade tool through bus histories and checks what it makes of them.",
                 "orvin-histories");
    app.require_subcommand(1);
    unsigned jobs = 2;
    std::uint64_t sparse = 1;
    app.add_option("--jobs", jobs, "Processes to share the work");
    app.add_option("--one-in", sparse, "Of an exhaustive search run only one history in so many");

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
                                [&](Share share, const histories::Finding& found) {
                                    return histories::searchSeeds(first, count, share, found);
                                },
                                1));
}
