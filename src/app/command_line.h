#ifndef APP_COMMAND_LINE_H
#define APP_COMMAND_LINE_H

struct RunConfig;

// Fills the configuration from the options and image paths. True when they describe a runnable
// mode. Ends the process itself, with status 0, at -h (after the usage text) and at -v.
[[nodiscard]] bool parseCommandLine(RunConfig& config, int argc, char** argv);

// Prints the usage text to standard output.
void printUsage(const RunConfig& config);

#endif
