/* The fuzz targets' seam (fuzz/seam.c): the C library's ways to run a
 * program, wait, signal or end the process are replaced by recording
 * versions for every target linked with it, so nothing a handler does on
 * an input leaves the process. */
#ifndef HX_FUZZ_SEAM_H
#define HX_FUZZ_SEAM_H

#include <stddef.h>

#define SEAM_RING_SIZE 64
#define SEAM_COMMAND_SIZE 256

/* How many commands were recorded since the start (the ring keeps the
 * last SEAM_RING_SIZE, each cut to SEAM_COMMAND_SIZE - 1 bytes). */
unsigned long seam_count(void);
/* The n-th last recorded command (0 is the last one), "WHAT COMMAND" with
 * WHAT the function ("system", "popen", "fork", "kill" ...); NULL when gone.
 * For a debugger or a target's own check; a later record overwrites it. */
const char *seam_command(unsigned long n);

/* Aborts unless the process runs inside the device sandbox (fuzz/run sets
 * HX_FUZZ_SANDBOX there, and the sandbox's stub logger exists only
 * there): the targets whose handlers write the device's fixed paths. */
void seam_require_sandbox(const char *target);

#endif
