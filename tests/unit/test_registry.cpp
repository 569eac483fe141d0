// The two name indexes: every row found under its exact name only, the
// targets that accept anything, and the refusal of a second load.
#include "ipc/registry.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <vector>

#include "ipc/handlers.h"
#include "tests/unit/support.h"

namespace {

const std::vector<std::string> info_names = {
	"p_model", "p_description", "s_time", "s_sysinfo", "s_osinfo", "s_boardinfo", "s_rootfsver",
	"s_waninfo", "s_wan_dns", "s_wan_gw", "s_laninfo", "s_logs", "s_dhcpleases", "s_stalist",
	"s_aplist", "s_scanap", "s_scanapresult", "s_staconninfo", "s_routesactive", "s_upnplist",
	"wl_radio", "ws_state", "fwup_status", "diskstatus", "disk_list", "pmd_status", "fw_version",
	"sleep_timeout", "disk_probe", "s_synctasklist", "backup_stat", "owner_list", "sdcard_status",
	"sd_backup_logs", "s_wl_channel", "s_scantdlsdevice", "s_scantdlsdeviceresult", "s_tdlsstatus",
	"cutthrough_status", "bat_cap", "bat_charging",
};

const std::vector<std::string> revalidate_names = {
	"wan", "lan", "dhcp", "wl", "wl_radio", "wl_power_save_mode", "firewall", "upnp", "datetime",
	"staticroute", "httpd", "fw_upgrade", "uploadsysconf", "factorydefault", "reboot", "poweroff",
	"video", "video2", "webdav", "dlna", "ipsec", "fm", "usbcharger", "firmwareupgrade", "pmd",
	"sleep_timeout", "thumbnail", "samba", "createsynctask", "cancelsynctask", "disk_unlock",
	"safely_remove", "charger_test", "tdls", "cut_through", "wpa", "owner_chg", "sd_copy",
	"sync_signal", "sys_event", "ap_profiles",
};

using Find = const ipc_handler_entry *(*)(const char *);

// Both indexes are loaded once per process.
class Indexes : public ::testing::Environment {
	void SetUp() override
	{
		infos_init();
		revalidates_init();
	}
};
::testing::Environment *const indexes_env = ::testing::AddGlobalTestEnvironment(new Indexes);

void expect_exact_names(const std::vector<std::string> &names, Find find)
{
	ASSERT_EQ(names.size(), IPC_TABLE_ROWS);
	std::set<const ipc_handler_entry *> rows;
	for (const std::string &name : names) {
		const ipc_handler_entry *row = find(name.c_str());
		ASSERT_NE(row, nullptr) << name;
		EXPECT_EQ(row->name, name);
		rows.insert(row);
		// Any letter in the other case, a prefix, an extension: nothing
		// (unless it is another row's name).
		std::vector<std::string> variants = {name.substr(0, name.size() - 1), name + "2", name + " "};
		for (size_t k = 0; k < name.size(); k++) {
			variants.push_back(name);
			variants.back()[k] = static_cast<char>(toupper(name[k]));
		}
		for (const std::string &variant : variants)
			EXPECT_TRUE(std::find(names.begin(), names.end(), variant) != names.end() ||
				    find(variant.c_str()) == nullptr)
				<< variant;
	}
	EXPECT_EQ(rows.size(), IPC_TABLE_ROWS);
	EXPECT_EQ(find(nullptr), nullptr);
}

TEST(Registry, EveryRowUnderItsExactNameOnly)
{
	expect_exact_names(info_names, info_find);
	expect_exact_names(revalidate_names, revalidate_find);
	EXPECT_EQ(info_find("wan"), nullptr);
	EXPECT_EQ(revalidate_find("s_time"), nullptr);
	EXPECT_NE(info_find("wl_radio")->handler, revalidate_find("wl_radio")->handler);
	EXPECT_EQ(info_find("s_rootfsver")->handler, info_find("fw_version")->handler);
}

TEST(Registry, TargetsThatAcceptAnything)
{
	for (const char *name : {"video", "video2", "ipsec", "thumbnail", "owner_chg"}) {
		for (const char *value : {"null", "5", "{\"action\":\"start\"}"}) {
			hx::json::Ptr v = hx::json::parse(value), reply(json_object_new_object());
			std::string out = hx::test::stdout_of([&] {
				EXPECT_EQ(revalidate_find(name)->handler(v.get(), reply.get(), nullptr), nullptr);
			});
			EXPECT_EQ(out, "");
			EXPECT_STREQ(json_object_to_json_string(reply.get()), "{ }");
		}
	}
}

TEST(RegistryDeathTest, ASecondLoadMeetsEveryNameAgain)
{
	EXPECT_DEATH(infos_init(), "ipcimpl:[0-9]+: infos_init: Assertion `\\(\\(void \\*\\)0\\) == old' failed");
	EXPECT_DEATH(revalidates_init(),
		     "ipcimpl:[0-9]+: revalidates_init: Assertion `\\(\\(void \\*\\)0\\) == old' failed");
}

}  // namespace
