// The fuzz targets' seam: for every target linked with it, the C library's
// ways to run a program, wait, signal another process or set the clock are
// replaced by versions that record the call and succeed, so nothing a
// handler does on an input leaves the process.
#ifndef HX_FUZZ_SEAM_H
#define HX_FUZZ_SEAM_H

#include <stddef.h>

#include <string>

namespace hx::fuzz {

inline constexpr size_t seam_ring_size = 64;

// How many calls were recorded since the start; the last seam_ring_size
// are kept.
unsigned long seam_count();
// The n-th last recorded call (0 the last one) as "WHAT ARGUMENT", WHAT the
// function ("system", "popen", "fork", "kill" ...); empty when no longer
// kept.  For a debugger or a target's own check.
std::string seam_command(unsigned long n);

// Aborts unless the process runs inside the device sandbox (fuzz/run sets
// HX_FUZZ_SANDBOX there, and the sandbox's stub logger exists only there):
// for the targets whose handlers write the device's fixed paths.
void require_sandbox(const char *target);

}  // namespace hx::fuzz

#endif
