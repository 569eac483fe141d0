/* Part 2.2: handler registry and target tables. */
#include <stdio.h>
#include <string.h>

#include <json-c/json.h>

#include "conf/backup.h"
#include "core/hxassert.h"
#include "ipc/handlers.h"
#include "ipc/registry.h"
#include "sync/sync.h"
#include "net/net.h"
#include "storage/storage.h"
#include "pm/pm.h"
#include "system/system.h"
#include "wifi/scan.h"
#include "wifi/wifi.h"

#define ROW(name, handler) { name, handler, { NULL, NULL, NULL, 0 } }

static ipc_handler_entry info_table[IPC_TABLE_ROWS] = {
	ROW("p_model", info_p_model),
	ROW("p_description", info_p_description),
	ROW("s_time", info_s_time),
	ROW("s_sysinfo", info_s_sysinfo),
	ROW("s_osinfo", info_s_osinfo),
	ROW("s_boardinfo", info_s_boardinfo),
	ROW("s_rootfsver", info_s_rootfsver),
	ROW("s_waninfo", info_s_waninfo),
	ROW("s_wan_dns", info_s_wan_dns),
	ROW("s_wan_gw", info_s_wan_gw),
	ROW("s_laninfo", info_s_laninfo),
	ROW("s_logs", info_s_logs),
	ROW("s_dhcpleases", info_s_dhcpleases),
	ROW("s_stalist", info_s_stalist),
	ROW("s_aplist", info_s_aplist),
	ROW("s_scanap", info_s_scanap),
	ROW("s_scanapresult", info_s_scanapresult),
	ROW("s_staconninfo", info_s_staconninfo),
	ROW("s_routesactive", info_s_routesactive),
	ROW("s_upnplist", info_s_upnplist),
	ROW("wl_radio", info_wl_radio),
	ROW("ws_state", info_ws_state),
	ROW("fwup_status", info_fwup_status),
	ROW("diskstatus", _info_getSnDiskInfo),
	ROW("disk_list", _info_getDiskList),
	ROW("pmd_status", info_pmd_status),
	ROW("fw_version", info_s_rootfsver),
	ROW("sleep_timeout", info_sleep_timeout),
	ROW("disk_probe", _info_getDiskProbe),
	ROW("s_synctasklist", _info_getSyncTaskList),
	ROW("backup_stat", _info_getSyncTaskList),
	ROW("owner_list", info_owner_list),
	ROW("sdcard_status", _info_getSDCardStatus),
	ROW("sd_backup_logs", _info_getSDCardBackupLogs),
	ROW("s_wl_channel", info_s_wl_channel),
	ROW("s_scantdlsdevice", info_s_scantdlsdevice),
	ROW("s_scantdlsdeviceresult", info_s_scantdlsdeviceresult),
	ROW("s_tdlsstatus", info_s_tdlsstatus),
	ROW("cutthrough_status", info_cutthrough_status),
	ROW("bat_cap", info_bat_cap),
	ROW("bat_charging", info_bat_charging),
};

static ipc_handler_entry revalidate_table[IPC_TABLE_ROWS] = {
	ROW("wan", _revalidate_wan),
	ROW("lan", _revalidate_lan),
	ROW("dhcp", _revalidate_dhcp),
	ROW("wl", _revalidate_wl),
	ROW("wl_radio", _revalidate_wlRadio),
	ROW("wl_power_save_mode", _revalidate_wlPowerSaveMode),
	ROW("firewall", _revalidate_firewall),
	ROW("upnp", _revalidate_upnp),
	ROW("datetime", _revalidate_datetime),
	ROW("staticroute", _revalidate_staticRoute),
	ROW("httpd", _revalidate_httpd),
	ROW("fw_upgrade", _revalidate_fwUpgrade),
	ROW("uploadsysconf", _revalidate_uploadSysconf),
	ROW("factorydefault", _revalidate_factoryDefault),
	ROW("reboot", _revalidate_reboot),
	ROW("poweroff", _revalidate_poweroff),
	ROW("video", _revalidate_noop),
	ROW("video2", _revalidate_noop),
	ROW("webdav", _revalidate_webdav),
	ROW("dlna", _revalidate_dlna),
	ROW("ipsec", _revalidate_noop),
	ROW("fm", _revalidate_fm),
	ROW("usbcharger", _revalidate_usbCharger),
	ROW("firmwareupgrade", _revalidate_firmwareUpgrade),
	ROW("pmd", _revalidate_pmd),
	ROW("sleep_timeout", _revalidate_sleepTimeout),
	ROW("thumbnail", _revalidate_noop),
	ROW("samba", _revalidate_samba),
	ROW("createsynctask", _revalidate_createSyncTask),
	ROW("cancelsynctask", _revalidate_cancelSyncTask),
	ROW("disk_unlock", _revalidate_diskUnlock),
	ROW("safely_remove", _revalidate_safelyRemove),
	ROW("charger_test", _revalidate_chargerTest),
	ROW("tdls", _revalidate_tdls),
	ROW("cut_through", _revalidate_cutThrough),
	ROW("wpa", _revalidate_wpa),
	ROW("owner_chg", _revalidate_ownerChg),
	ROW("sd_copy", _revalidate_sdCopy),
	ROW("sync_signal", _revalidate_syncSignal),
	ROW("sys_event", _revalidate_sysEvent),
	ROW("ap_profiles", _revalidate_apProfiles),
};

static struct ipc_handler_index info_index = RB_INITIALIZER(&info_index);
static struct ipc_handler_index revalidate_index = RB_INITIALIZER(&revalidate_index);

static int
entry_cmp(const ipc_handler_entry *a, const ipc_handler_entry *b)
{
	return strcmp(a->name, b->name);
}

HX_RB_GENERATE_STATIC(ipc_handler_index, ipc_handler_entry, link, entry_cmp)

static void
index_load(struct ipc_handler_index *index, ipc_handler_entry *table, const char *caller)
{
	ipc_handler_entry *old;
	size_t i;

	for (i = 0; i < IPC_TABLE_ROWS; i++) {
		old = RB_INSERT(ipc_handler_index, index, &table[i]);
		hx_assert_in("ipcimpl", caller, ((void *)0) == old);
	}
}

void
infos_init(void)
{
	index_load(&info_index, info_table, __func__);
}

void
revalidates_init(void)
{
	index_load(&revalidate_index, revalidate_table, __func__);
}

static ipc_handler_entry *
index_find(struct ipc_handler_index *index, const char *name)
{
	ipc_handler_entry find;

	if (name == NULL)
		return NULL;
	find.name = name;
	return RB_FIND(ipc_handler_index, index, &find);
}

ipc_handler_entry *
info_find(const char *name)
{
	return index_find(&info_index, name);
}

ipc_handler_entry *
revalidate_find(const char *name)
{
	return index_find(&revalidate_index, name);
}

const char *
_revalidate_noop(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	(void)value;
	(void)reply_arguments;
	(void)deferred;
	return NULL;
}

const char *
ipc_target_check(struct json_object *value, const char *error)
{
	if (value == NULL) {
		puts("Input parameter is NULL.");
		return error;
	}
	if (!json_object_is_type(value, json_type_object)) {
		puts("Unexpected json type.");
		return error;
	}
	return NULL;
}

const char *
ipc_target_action(struct json_object *value)
{
	struct json_object *action = json_object_object_get(value, "action");

	return json_object_is_type(action, json_type_string) ? json_object_get_string(action) : NULL;
}
