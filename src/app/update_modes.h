#ifndef APP_UPDATE_MODES_H
#define APP_UPDATE_MODES_H

struct RunConfig;

// Upgrade the Orvin named with -d, or with -B every Orvin on the bus, with all images of the
// command line. Both return runImageSet's result. Main thread.
int targetedUpdate(RunConfig& config);
int broadcastUpdate(RunConfig& config);

#endif
