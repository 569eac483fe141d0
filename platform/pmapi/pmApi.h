/* libpmApi substitute: the calls to the power-management controller.  Each
 * returns 0 on success and non-zero when no controller answers within
 * PMC_TIMEOUT_MS or it refuses.
 *
 * Protocol (ours): one stream connection to PMC_SOCKET_PATH per call; the
 * client sends one line and reads one line back:
 *   "MSG <id>\n"          -> "OK\n" or "FAIL\n"
 *   "MSG <id> <param>\n"  -> "OK\n" or "FAIL\n"
 *   "STATUS\n"            -> "OK <status>\n" or "FAIL\n"                  */
#ifndef PMAPI_H
#define PMAPI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PMC_SOCKET_PATH "/var/run/pmc.sock"
#define PMC_TIMEOUT_MS 2000

int pmc_ipc_send_message(int id);
int pmc_ipc_send_message_with_param(int id, int32_t *param);
int pmc_get_system_status(int32_t *status);

#ifdef __cplusplus
}
#endif

#endif
