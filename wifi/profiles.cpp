// The saved hotspot profiles, kept twice in the persistent store: whole, as
// the JSON array "ap_profile", and flattened into the two slots' keys that
// the WAN reads.  Each load builds a fresh list.
#include "wifi/profiles.h"

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <vector>

#include "conf/store.h"
#include "core/fmt.h"
#include "core/json.h"
#include "core/log.h"
#include "ipc/target.h"
#include "wifi/sta.h"

namespace {

using hx::conf::Store;

enum Field { id, essid, encrypt, pass, workmode };
constexpr const char *members[] = {"id", "essid", "encrypt", "pass", "workmode"};
constexpr size_t profiles_max = std::size(hx::wifi::slot_keys);
constexpr Field slot_fields[] = {essid, encrypt, pass, workmode};

// Each field is JSON text as stored (a string keeps its quotes); empty when
// the key it comes from is missing, as no stored value is empty.
using Profile = std::array<std::string, std::size(members)>;
// The older profile first.
using Profiles = std::vector<Profile>;

std::string quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

std::string workmode_text()
{
	std::optional<std::string> type = hx::conf::get(Store::sysconf, "wan_type");
	for (const hx::wifi::TrustMode &mode : hx::wifi::trust_modes)
		if (type == quoted(mode.wan_type))
			return quoted(mode.text);
	return "\"\"";
}

Profile profile_json_new()
{
	auto text = [](const char *key) { return hx::conf::get(Store::sysconf, key).value_or(""); };
	return {hx::format("%d", rand()), text("wan_sta_ssid"), text("wan_sta_sec"),
		text("wan_sta_pass"), workmode_text()};
}

// A missing member (or null) gives the text "null".
Profile profile_from_json(json_object *object)
{
	Profile p;
	for (size_t f = 0; f < p.size(); f++)
		p[f] = json_object_to_json_string(hx::json::member(object, members[f]));
	return p;
}

std::optional<Profiles> approfiles_sysconf_get()
{
	auto stored = hx::conf::json(Store::sysconf, "ap_profile");
	json_object *array = stored ? stored->get() : nullptr;
	size_t n = hx::json::is(array, json_type_array) ? json_object_array_length(array) : 0;
	const char *refused = !stored ? "failed to parse evbuf"
			      : !hx::json::is(array, json_type_array) ? "unexpected json type"
			      : n > profiles_max ? "Invalid length of approfiles" : nullptr;
	if (refused != nullptr) {
		gw_warnx("%s: %s.\n", __func__, refused);
		return std::nullopt;
	}
	Profiles list;
	for (size_t i = 0; i < n; i++) {
		json_object *object = json_object_array_get_idx(array, i);
		if (!hx::json::is(object, json_type_object))
			return std::nullopt;
		list.push_back(profile_from_json(object));
	}
	for (size_t i = 0; i < n; i++)
		_gw_debugx("%s: profile %d: id %s, essid %s, encrypt %s, workmode %s.\n", __func__,
			   static_cast<int>(i), list[i][id].c_str(), list[i][essid].c_str(),
			   list[i][encrypt].c_str(), list[i][workmode].c_str());
	return list;
}

bool same_essid(const Profile &p, const char *essid_text)
{
	return !p[essid].empty() && p[essid] == essid_text;
}

// The same SSID replaces its profile in place; a third one drops the oldest.
void approfiles_add(Profiles &list, Profile p)
{
	auto same = std::find_if(list.begin(), list.end(), [&](const Profile &q) {
		return same_essid(q, p[essid].c_str());
	});
	if (same != list.end()) {
		*same = std::move(p);
		return;
	}
	if (list.size() == profiles_max)
		list.erase(list.begin());
	list.push_back(std::move(p));
}

// The profile as a JSON object; empty when a field does not parse.
hx::json::Ptr profile_to_json(const Profile &p)
{
	hx::json::Ptr object(json_object_new_object());
	for (size_t f = 0; object && f < p.size(); f++) {
		if (p[f].empty())
			return nullptr;
		// Unlike json_tokener_parse, this tells the text "null" from an error.
		json_tokener_error error;
		json_object *member = json_tokener_parse_verbose(p[f].c_str(), &error);
		if (error != json_tokener_success)
			return nullptr;
		json_object_object_add(object.get(), members[f], member);
	}
	return object;
}

int approfiles_sysconf_set(const Profiles &list)
{
	hx::json::Ptr array(json_object_new_array());
	if (!array)
		return -1;
	for (const Profile &p : list) {
		hx::json::Ptr object = profile_to_json(p);
		if (!object)
			return -1;
		json_object_array_add(array.get(), object.release());
	}
	const char *text = json_object_to_json_string(array.get());
	_gw_debugx("%s: profiles to be set is %s.\n", __func__, text);
	return hx::conf::set(Store::sysconf, "ap_profile", text);
}

// The slot keys were once written with each text as a printf format and no
// arguments: "%%" gives "%", and any other '%' stays as it stands.
std::string format_literal(std::string_view text)
{
	std::string out;
	for (size_t i = 0; i < text.size(); i++) {
		if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%')
			i++;
		out += text[i];
	}
	return out;
}

// An empty slot holds an empty JSON string in its four keys.
int approfiles_wan_sta_key_set(const Profiles &list)
{
	for (size_t i = 0; i < profiles_max; i++) {
		for (size_t k = 0; k < std::size(slot_fields); k++) {
			std::string value = i < list.size()
				? format_literal(list[i][slot_fields[k]]) : "\"\"";
			if (hx::conf::set(Store::sysconf, hx::wifi::slot_keys[i][k], value) != 0)
				return -1;
		}
	}
	return 0;
}

int approfiles_store(const Profiles &list)
{
	return approfiles_sysconf_set(list) == 0 ? approfiles_wan_sta_key_set(list) : -1;
}

const char *forget(json_object *value)
{
	return gw_profiles_forget(hx::json::member(value, "essid")) == 0 ? nullptr : "internal error";
}

constexpr hx::ipc::Action profile_actions[] = {{"forget", forget}};

}  // namespace

int profile_set()
{
	Profile p = profile_json_new();
	std::optional<Profiles> list = approfiles_sysconf_get();
	if (!list)
		return -1;
	approfiles_add(*list, std::move(p));
	return approfiles_store(*list);
}

int gw_profiles_set() { return profile_set(); }

int profile_forget(const char *essid_text)
{
	if (essid_text == nullptr)
		return -1;
	std::optional<Profiles> list = approfiles_sysconf_get();
	if (!list)
		return -1;
	auto found = std::find_if(list->begin(), list->end(),
				  [&](const Profile &p) { return same_essid(p, essid_text); });
	if (found == list->end()) {
		gw_warnx("%s: Not found the forget ssid.\n", __func__);
		return -1;
	}
	list->erase(found);
	return approfiles_store(*list);
}

int profiles_forget_all()
{
	if (approfiles_store({}) != 0)
		return -1;
	hx::wifi::wan_link().stop();
	return 0;
}

int gw_wan_status_check(const char *essid_text)
{
	if (hx::conf::get(Store::rtconf, "wan_status") != "\"WAN_UP\"")
		return 0;
	std::optional<std::string> ssid = hx::conf::get(Store::sysconf, "wan_sta_ssid");
	_gw_debugx("%s: wan_sta_ssid is %s, essid is %s.\n", __func__,
		   ssid ? ssid->c_str() : "(null)", essid_text);
	if (ssid == essid_text)
		hx::wifi::wan_link().stop();
	return 0;
}

int gw_profiles_forget(json_object *essids)
{
	if (!hx::json::is(essids, json_type_array)) {
		gw_warnx("%s: Invalid input parameters.\n", __func__);
		return -1;
	}
	size_t n = json_object_array_length(essids);
	if (n == 0) {
		_gw_debugx("%s: forget all ap profile list.\n", __func__);
		return profiles_forget_all();
	}
	for (size_t i = 0; i < n; i++) {
		const char *text = json_object_to_json_string(json_object_array_get_idx(essids, i));
		_gw_debugx("%s: forget essid is %s.\n", __func__, text);
		if (profile_forget(text) != 0)
			return -1;
		gw_wan_status_check(text);
	}
	return 0;
}

const char *_revalidate_apProfiles(json_object *value, json_object *, void *)
{
	// A null argument answers without a line, and "action" must be a
	// member, of whatever type.
	if (value == nullptr)
		return "invalid arguments";
	if (const char *error = hx::ipc::check_target(value, "invalid arguments"))
		return error;
	if (!json_object_object_get_ex(value, "action", nullptr))
		return "invalid arguments";
	return hx::ipc::run_target(value, {profile_actions});
}
