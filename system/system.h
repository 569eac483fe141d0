/* Auxiliary services and system actions: Parts 9.1, 9.2 and the media
 * start/stop wrappers (rows "-" of Part 2.2). */
#ifndef HX_SYSTEM_H
#define HX_SYSTEM_H

struct json_object;

/* Part 9.1 */
int httpd_start(void);
int httpd_stop(void);
int httpd_restart(void);

/* Part 9.2 */
void do_safeReboot(int delay_seconds);
void do_poweroff(void);
int do_factoryDefault(void);
int fw_upgrade(int set_defaults);
int firmware_upgrade(const char *serverip, const char *bootloader, const char *kernel,
		     const char *jffs2, const char *opt, const char *rootfs,
		     const char *subfolder);

/* Part 9.1 */
const char *_revalidate_httpd(struct json_object *value, struct json_object *reply_arguments, void *deferred);
/* Part 9.2 */
const char *_revalidate_fwUpgrade(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_firmwareUpgrade(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_factoryDefault(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_reboot(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_poweroff(struct json_object *value, struct json_object *reply_arguments, void *deferred);
/* media wrappers (system/media.c) */
const char *_revalidate_webdav(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_dlna(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_samba(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_fm(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_usbCharger(struct json_object *value, struct json_object *reply_arguments, void *deferred);

#endif
