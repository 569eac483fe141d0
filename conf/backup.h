/* Part 3.2: the configuration backup file and its restore. */
#ifndef HX_CONF_BACKUP_H
#define HX_CONF_BACKUP_H

#include <stddef.h>
#include <stdint.h>

struct json_object;

#define BACKUP_MAGIC 0x88E7221Fu
#define BACKUP_HEADER_SIZE 32

/* CRC-32C (reflected 0x82F63B78) continued from crc, a byte at a time, no
 * final inversion: crc32c_(0, ...) is the backup file's checksum. */
uint32_t crc32c_(uint32_t crc, const void *data, size_t len);
/* Store file db_path -> backup file conf_path; 0 or -1 (message printed). */
int db_to_conf(const char *db_path, const char *conf_path);
/* Backup file conf_path -> store file db_path; 0 or -1 (message printed). */
int conf_to_db(const char *db_path, const char *conf_path);
/* Restores "/var/tmp/upfile" through "sysconf rep"; 0 or -1. */
int sysconf_restore(void);

/* Target "uploadsysconf" */
const char *_revalidate_uploadSysconf(struct json_object *value,
				      struct json_object *reply_arguments, void *deferred);

#endif
