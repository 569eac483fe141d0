/* Part 1.1: start-up, daemon mode and shutdown. */
#ifndef HX_CORE_STARTUP_H
#define HX_CORE_STARTUP_H

/* The start-up sequence of Part 1.1; returns 1 if the event loop returns. */
int hxsrvd_main(int argc, char *argv[]);

#endif
