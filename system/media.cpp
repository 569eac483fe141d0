// The media and device services: start/stop wrappers around the device's
// scripts for "webdav", "samba", "dlna", "fm" and "usbcharger".  The
// scripts' results are not judged.
#include <ctype.h>
#include <stdio.h>

#include <string>

#include "conf/store.h"
#include "core/fmt.h"
#include "core/util.h"
#include "ipc/target.h"
#include "net/lanwan.h"
#include "system/system.h"

namespace {

using hx::ipc::Action;

constexpr char webdav_start[] = "/etc/demo/webdav_start.sh";
constexpr char webdav_stop[] = "/etc/demo/webdav_stop.sh";
constexpr char samba_start[] = "/etc/demo/samba_start.sh";
constexpr char samba_stop[] = "/etc/demo/samba_stop.sh";
constexpr char minidlna_stop[] = "/etc/demo/minidlna_stop.sh";
constexpr char fm_start[] = "/etc/app/gw_fm.sh start";
constexpr char fm_stop[] = "/etc/app/gw_fm.sh stop";
constexpr char charger_on[] = "/etc/app/gw_usbcharger.sh on";
constexpr char charger_off[] = "/etc/app/gw_usbcharger.sh off";
// "/etc/app/gw_fm.sh set_freq " and at most "108.0"
constexpr size_t fm_command_size = 64;

// An action that runs the commands in their order.
template <const char *...Commands>
const char *script(json_object *)
{
	(do_system(Commands), ...);
	return nullptr;
}

// A frequency in MHz from 76 to 108, written as digits with at most one
// decimal digit ("87", "87.5").  The text reaches the shell, so nothing
// else passes.
bool fm_freq_valid(const std::string &text)
{
	unsigned int tenths = 0;
	size_t i = 0;
	for (; i < text.size() && isdigit(static_cast<unsigned char>(text[i])); i++) {
		if (i == 3)
			return false;
		tenths = tenths * 10 + static_cast<unsigned int>(text[i] - '0');
	}
	if (i == 0)
		return false;
	tenths *= 10;
	if (i < text.size() && text[i] == '.') {
		if (i + 1 == text.size() || !isdigit(static_cast<unsigned char>(text[i + 1])))
			return false;
		tenths += static_cast<unsigned int>(text[i + 1] - '0');
		i += 2;
	}
	return i == text.size() && tenths >= 760 && tenths <= 1080;
}

// A stored number keeps its text (87.5), a string gives its characters.
const char *fm_set_freq(json_object *)
{
	auto freq = hx::conf::text(hx::conf::Store::sysconf, "fm_freq");
	if (!freq) {
		puts(freq.error() == hx::conf::Error::bad_json ? "fm_freq is not valid JSON."
							      : "fm_freq is not set.");
		return "internal error";
	}
	if (!fm_freq_valid(*freq)) {
		puts("Invalid FM frequency.");
		return "internal error";
	}
	return do_systemf(fm_command_size, "/etc/app/gw_fm.sh set_freq %s", freq->c_str()) == 0
		       ? nullptr
		       : "internal error";
}

constexpr Action webdav_actions[] = {
	{"start", script<webdav_start>},
	{"stop", script<webdav_stop>},
	{"restart", script<webdav_stop, webdav_start>},
};
constexpr Action samba_actions[] = {
	{"start", script<samba_start>},
	{"stop", script<samba_stop>},
	{"restart", script<samba_stop, samba_start>},
};
constexpr Action dlna_actions[] = {
	{"start", hx::ipc::run<dlna_restart>},
	{"restart", hx::ipc::run<dlna_restart>},
	{"stop", script<minidlna_stop>},
};
constexpr Action fm_actions[] = {
	{"start", script<fm_start>},
	{"stop", script<fm_stop>},
	{"restart", script<fm_stop, fm_start>},
	{"set_freq", fm_set_freq},
};
constexpr Action charger_actions[] = {
	{"on", script<charger_on>},
	{"off", script<charger_off>},
};

}  // namespace

const char *_revalidate_webdav(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {webdav_actions});
}

const char *_revalidate_samba(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {samba_actions});
}

const char *_revalidate_dlna(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {dlna_actions});
}

const char *_revalidate_fm(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {fm_actions});
}

const char *_revalidate_usbCharger(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {charger_actions});
}
