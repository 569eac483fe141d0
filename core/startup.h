// The daemon's process life: options, detaching, the single-instance lock,
// the pid file, signals, the event loop.
#ifndef HX_CORE_STARTUP_H
#define HX_CORE_STARTUP_H

// Returns 1 if the event loop ever returns.
int hxsrvd_main(int argc, char *argv[]);

#endif
