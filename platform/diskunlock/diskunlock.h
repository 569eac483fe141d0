/* Substitute for the closed disk-unlock library: each drive's lock state
 * lives in one file per drive (see diskunlock.cpp).  Both return the lock
 * state: -1 error, 0 unlocked, 1 locked, 2 no unlock attempts left. */
#ifndef HX_DISKUNLOCK_H
#define HX_DISKUNLOCK_H

#ifdef __cplusplus
extern "C" {
#endif

int disk_probe(const char *disk_name);
int disk_unlock(const char *disk_name, const char *password);

#ifdef __cplusplus
}
#endif

#endif
