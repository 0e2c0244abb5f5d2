#include <fcntl.h>
#include <libintl.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "app/run.h"
#include "core/console.h"
#include "core/run_config.h"

namespace {

// An upgrade that has begun must not end because of its output. A standard stream that the caller
// closed is replaced by /dev/null, or the next file opened would take its number and receive the
// console output; a broken pipe and a file-size limit become failed writes.
void secureOutput() {
    int file = open("/dev/null", O_RDWR);
    while (file >= 0 && file <= STDERR_FILENO) {
        file = dup(file);
    }
    if (file >= 0) {
        close(file);
    }
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

void setUpMessageCatalogue() {
    if (const char* locale = setlocale(LC_ALL, "")) {
        printLine("Using locale %s", locale);
    } else {
        fputs("Could not retrieve system locale settings!\n", stderr);
    }
    if (const char* directory = bindtextdomain(kTextDomain, getenv("TEXTDOMAINDIR"))) {
        printLine("Using locales from %s", directory);
    } else {
        fputs("Could not bind text domain! Messages will not betranslated.\n", stderr);
    }
    if (const char* domain = textdomain(kTextDomain)) {
        printLine("Using text domain %s", domain);
    } else {
        fputs("Could not setup text domain! Messages will not be translated.\n", stderr);
    }
}

}  // namespace

int main(int argc, char** argv) {
    secureOutput();
    RunConfig config;
    setUpMessageCatalogue();
    return run(config, argc, argv);
}
