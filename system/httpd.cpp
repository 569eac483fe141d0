// The web server's configuration file, with the optional login of the web
// interface, and the server's start, stop and restart.
#include <crypt.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <optional>
#include <string>

#include "conf/store.h"
#include "core/fmt.h"
#include "core/util.h"
#include "ipc/target.h"
#include "system/system.h"

namespace {

namespace conf = hx::conf;

constexpr const char *httpd_conf = "/etc/mini_httpd.conf";
constexpr const char *httpd_command = "mini_httpd -C /etc/mini_httpd.conf >/dev/null 2>&1";
constexpr const char *salt_alphabet =
	"./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr const char *fixed_lines =
	"dir=/opt/web\n"
	"nochroot\n"
	"port=80\n"
	"charset=utf-8\n"
	"logfile=/dev/null\n"
	"user=root\n"
	"cgipat=**.cgi\n";

// The DES-based hash of passwd with a salt from one random() value seeded
// with the time in seconds; nullopt when crypt fails.
std::optional<std::string> hash(const std::string &passwd)
{
	srandom(static_cast<unsigned int>(time(nullptr)));
	long v = random();
	const char salt[] = {salt_alphabet[v & 63], salt_alphabet[(v >> 6) & 63], '\0'};
	const char *hashed = crypt(passwd.c_str(), salt);
	if (hashed == nullptr || hashed[0] == '*')
		return std::nullopt;
	return hashed;
}

// A login key that is missing means no login (""); one that does not
// parse refuses the login.
std::optional<std::string> without_login(conf::Error error)
{
	if (error == conf::Error::bad_json)
		return std::nullopt;
	return "";
}

// The file's login line ("" without a login), or nullopt when the stored
// login is refused and neither the file nor the server may be touched.  A
// stored name or password that is JSON but no string counts as its text.
std::optional<std::string> passport()
{
	auto name = conf::text(conf::Store::sysconf, "httpd_auth_name");
	if (!name)
		return without_login(name.error());
	if (name->empty())
		return "";
	auto passwd = conf::text(conf::Store::sysconf, "httpd_auth_passwd");
	if (!passwd)
		return without_login(passwd.error());
	// a newline would add a line to the file, a ':' split the entry; the
	// password is only written hashed
	if (name->find_first_of("\n:") != std::string::npos) {
		puts("httpd: login name holds a newline or ':', configuration unchanged");
		return std::nullopt;
	}
	std::optional<std::string> hashed = hash(*passwd);
	if (!hashed) {
		puts("httpd: crypt failed, configuration unchanged");
		return std::nullopt;
	}
	return hx::format("passport=%s:%s\n", name->c_str(), hashed->c_str());
}

bool write_conf(const std::string &login)
{
	hx::FilePtr file = hx::open_file(httpd_conf, "w");
	if (!file)
		return false;
	bool ok;
	{
		flockfile(file.get());
		hx::Owned<FILE, funlockfile> unlock(file.get());	// the stream's lock while writing
		ok = fputs(fixed_lines, file.get()) >= 0 && fputs(login.c_str(), file.get()) >= 0;
	}
	return hx::close_file(std::move(file)) && ok;
}

// The shell status of the start, or -1 when the file could not be written.
int run(const std::string &login)
{
	return write_conf(login) ? do_system(httpd_command) : -1;
}

}  // namespace

int httpd_start()
{
	std::optional<std::string> login = passport();
	return login ? run(*login) : -1;
}

int httpd_stop()
{
	return do_system("killall mini_httpd");
}

// The login is read before the stop, so a refused one leaves the running
// server alone.
int httpd_restart()
{
	std::optional<std::string> login = passport();
	if (!login)
		return -1;
	httpd_stop();
	return run(*login);
}

namespace {

constexpr hx::ipc::Action httpd_actions[] = {
	{"start", hx::ipc::run<httpd_restart>},
	{"restart", hx::ipc::run<httpd_restart>},
	{"stop", hx::ipc::run<httpd_stop>},
};

}  // namespace

const char *_revalidate_httpd(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {httpd_actions});
}
