#ifndef CORE_RUN_CONFIG_H
#define CORE_RUN_CONFIG_H

#include <list>
#include <string>

struct BusSession;

// The parsed command line, and the session that every mode works on. One per process.
struct RunConfig {
    const char* programPath = nullptr;  // argv[0], not owned
    std::list<std::string> imageFiles;  // in command-line order until runImageSet reorders them
    std::string connection;             // -c
    std::string targetVanid;            // -d, as given
    std::string messageFile;            // -m; empty: no status messages
    bool listDevices = false;           // -l
    bool queryVersion = false;          // -V
    bool broadcast = false;             // -B
    bool debug = false;                 // -D
    bool pretend = false;               // -p
    bool force = false;                 // -f
    BusSession* session = nullptr;      // not owned; set once the command line was accepted
};

#endif
