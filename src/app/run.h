#ifndef APP_RUN_H
#define APP_RUN_H

struct RunConfig;

// The text domain of the message catalogues.
constexpr char kTextDomain[] = "orvin-firmware-upgrade";

// One run of the tool: command line, bus session, status message writer, the wait for the bus link,
// one mode. Returns the exit status.
int run(RunConfig& config, int argc, char** argv);

#endif
