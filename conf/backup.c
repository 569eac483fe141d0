/* Part 3.2 -- placeholder, being written */
#include "conf/backup.h"

uint32_t crc32c_(uint32_t crc, const void *data, size_t len) { (void)data; (void)len; return crc; }
int db_to_conf(const char *db_path, const char *conf_path) { (void)db_path; (void)conf_path; return -1; }
int conf_to_db(const char *db_path, const char *conf_path) { (void)db_path; (void)conf_path; return -1; }
int sysconf_restore(void) { return -1; }
const char *_revalidate_uploadSysconf(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
