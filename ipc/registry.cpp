#include "ipc/registry.h"

#include <span>

#include "conf/backup.h"
#include "core/hxassert.h"
#include "ipc/handlers.h"
#include "ipc/target.h"
#include "net/net.h"
#include "pm/pm.h"
#include "storage/storage.h"
#include "sync/sync.h"
#include "system/system.h"
#include "wifi/scan.h"
#include "wifi/wifi.h"

namespace {

using hx::ipc::item;
namespace i = hx::ipc;

constexpr ipc_handler_entry info_table[] = {
	{"p_model", item<i::p_model>},
	{"p_description", item<i::p_description>},
	{"s_time", item<i::s_time>},
	{"s_sysinfo", item<i::s_sysinfo>},
	{"s_osinfo", item<i::s_osinfo>},
	{"s_boardinfo", item<i::s_boardinfo>},
	{"s_rootfsver", item<i::s_rootfsver>},
	{"s_waninfo", item<i::s_waninfo>},
	{"s_wan_dns", item<i::s_wan_dns>},
	{"s_wan_gw", item<i::s_wan_gw>},
	{"s_laninfo", item<i::s_laninfo>},
	{"s_logs", item<i::s_logs>},
	{"s_dhcpleases", item<i::s_dhcpleases>},
	{"s_stalist", item<i::s_stalist>},
	{"s_aplist", info_s_aplist},
	{"s_scanap", info_s_scanap},
	{"s_scanapresult", info_s_scanapresult},
	{"s_staconninfo", info_s_staconninfo},
	{"s_routesactive", item<i::s_routesactive>},
	{"s_upnplist", item<i::s_upnplist>},
	{"wl_radio", item<i::wl_radio>},
	{"ws_state", item<i::ws_state>},
	{"fwup_status", item<i::fwup_status>},
	{"diskstatus", _info_getSnDiskInfo},
	{"disk_list", _info_getDiskList},
	{"pmd_status", info_pmd_status},
	{"fw_version", item<i::s_rootfsver>},
	{"sleep_timeout", info_sleep_timeout},
	{"disk_probe", _info_getDiskProbe},
	{"s_synctasklist", _info_getSyncTaskList},
	{"backup_stat", _info_getSyncTaskList},
	{"owner_list", item<i::owner_list>},
	{"sdcard_status", _info_getSDCardStatus},
	{"sd_backup_logs", _info_getSDCardBackupLogs},
	{"s_wl_channel", info_s_wl_channel},
	{"s_scantdlsdevice", info_s_scantdlsdevice},
	{"s_scantdlsdeviceresult", info_s_scantdlsdeviceresult},
	{"s_tdlsstatus", info_s_tdlsstatus},
	{"cutthrough_status", info_cutthrough_status},
	{"bat_cap", info_bat_cap},
	{"bat_charging", info_bat_charging},
};

constexpr ipc_handler_entry revalidate_table[] = {
	{"wan", _revalidate_wan},
	{"lan", _revalidate_lan},
	{"dhcp", _revalidate_dhcp},
	{"wl", _revalidate_wl},
	{"wl_radio", _revalidate_wlRadio},
	{"wl_power_save_mode", _revalidate_wlPowerSaveMode},
	{"firewall", _revalidate_firewall},
	{"upnp", _revalidate_upnp},
	{"datetime", _revalidate_datetime},
	{"staticroute", _revalidate_staticRoute},
	{"httpd", _revalidate_httpd},
	{"fw_upgrade", _revalidate_fwUpgrade},
	{"uploadsysconf", _revalidate_uploadSysconf},
	{"factorydefault", _revalidate_factoryDefault},
	{"reboot", _revalidate_reboot},
	{"poweroff", _revalidate_poweroff},
	{"video", _revalidate_noop},
	{"video2", _revalidate_noop},
	{"webdav", _revalidate_webdav},
	{"dlna", _revalidate_dlna},
	{"ipsec", _revalidate_noop},
	{"fm", _revalidate_fm},
	{"usbcharger", _revalidate_usbCharger},
	{"firmwareupgrade", _revalidate_firmwareUpgrade},
	{"pmd", _revalidate_pmd},
	{"sleep_timeout", _revalidate_sleepTimeout},
	{"thumbnail", _revalidate_noop},
	{"samba", _revalidate_samba},
	{"createsynctask", _revalidate_createSyncTask},
	{"cancelsynctask", _revalidate_cancelSyncTask},
	{"disk_unlock", _revalidate_diskUnlock},
	{"safely_remove", _revalidate_safelyRemove},
	{"charger_test", _revalidate_chargerTest},
	{"tdls", _revalidate_tdls},
	{"cut_through", _revalidate_cutThrough},
	{"wpa", _revalidate_wpa},
	{"owner_chg", _revalidate_noop},	// names and icons are read when asked for
	{"sd_copy", _revalidate_sdCopy},
	{"sync_signal", _revalidate_syncSignal},
	{"sys_event", _revalidate_sysEvent},
	{"ap_profiles", _revalidate_apProfiles},
};

static_assert(std::size(info_table) == IPC_TABLE_ROWS);
static_assert(std::size(revalidate_table) == IPC_TABLE_ROWS);

ipc_handler_index info_index, revalidate_index;

void index_load(ipc_handler_index &index, std::span<const ipc_handler_entry> table,
		const char *caller)
{
	for (const ipc_handler_entry &row : table) {
		auto [at, inserted] = index.emplace(row.name, &row);
		const ipc_handler_entry *old = inserted ? nullptr : at->second;
		hx_assert_in("ipcimpl", caller, ((void *)0) == old);
	}
}

const ipc_handler_entry *index_find(const ipc_handler_index &index, const char *name)
{
	if (name == nullptr)
		return nullptr;
	auto found = index.find(name);
	return found != index.end() ? found->second : nullptr;
}

}  // namespace

void infos_init() { index_load(info_index, info_table, __func__); }
void revalidates_init() { index_load(revalidate_index, revalidate_table, __func__); }
const ipc_handler_entry *info_find(const char *name) { return index_find(info_index, name); }
const ipc_handler_entry *revalidate_find(const char *name)
{
	return index_find(revalidate_index, name);
}

const char *_revalidate_noop(json_object *, json_object *, void *)
{
	return nullptr;
}

