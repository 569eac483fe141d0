// The configuration backup file: the persistent store's file enciphered
// (DES-ECB) behind a 32-byte header with a magic number and a checksum,
// and the restore of an uploaded backup.
#ifndef HX_CONF_BACKUP_H
#define HX_CONF_BACKUP_H

#include <stddef.h>
#include <stdint.h>

#include <span>

struct json_object;

namespace hx::conf {

inline constexpr uint32_t backup_magic = 0x88E7221Fu;
inline constexpr size_t backup_header_size = 32;

}  // namespace hx::conf

// CRC-32C (reflected 0x82F63B78) continued from crc, a byte at a time, no
// final inversion: crc32c_(0, payload) is the backup file's checksum.
uint32_t crc32c_(uint32_t crc, std::span<const unsigned char> data);
// Store file db_path -> backup file conf_path: 0, or -1 with the reason
// printed.
int db_to_conf(const char *db_path, const char *conf_path);
// Backup file conf_path -> store file db_path: 0, or -1 with the reason
// printed.
int conf_to_db(const char *db_path, const char *conf_path);
// Restores "/var/tmp/upfile" through "sysconf rep": 0 or -1.
int sysconf_restore();

const char *_revalidate_uploadSysconf(json_object *value, json_object *reply_arguments, void *deferred);

#endif
