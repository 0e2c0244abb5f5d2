#ifndef BUS_LISTING_H
#define BUS_LISTING_H

struct RunConfig;

// -l: prints a numbered line per bus member. Always kSuccess.
int listMode(const RunConfig& config);

// -V: prints the versions of the device named with -d. Returns kSuccess, or kVersionQueryFailed
// when its text is no identifier or it does not answer.
int versionMode(const RunConfig& config);

#endif
