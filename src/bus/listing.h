#ifndef BUS_LISTING_H
#define BUS_LISTING_H

struct RunConfig;

// -l: prints a numbered line per bus member. Always 0.
int listMode(const RunConfig& config);

// -V: prints the versions of the device named with -d. 0, or -1 when its text is no identifier or
// it does not answer.
int versionMode(const RunConfig& config);

#endif
