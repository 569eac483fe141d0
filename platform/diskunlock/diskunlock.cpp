// Substitute for the closed disk-unlock library.
//
// Each password-locked drive has one text file named after the drive in
// the directory $HX_DISKUNLOCK_DIR (default "/var/lib/hxsim-diskunlock"),
// holding three lines: the lock state (0, 1 or 2), the unlock attempts
// left, and the password.  A drive without a file has no password lock
// and is unlocked (0).  A file that cannot be read or parsed, or a drive
// name that is empty, too long or holds '/', gives -1.  A wrong password
// uses an attempt; the last one turns the state into 2, and a drive in
// state 2 refuses every password.
#include "diskunlock.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <optional>
#include <string>

namespace {

struct CloseFile {
	void operator()(FILE *file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

struct Drive {
	int state = 0;
	int tries = 0;
	char password[128] = "";
};

std::optional<std::string> drive_path(const char *disk_name)
{
	if (disk_name == nullptr || disk_name[0] == '\0' || disk_name[0] == '.' ||
	    strchr(disk_name, '/') != nullptr || strlen(disk_name) > 15)
		return std::nullopt;
	const char *dir = getenv("HX_DISKUNLOCK_DIR");
	return std::string(dir != nullptr && dir[0] != '\0' ? dir : "/var/lib/hxsim-diskunlock") + "/" +
	       disk_name;
}

// 1 when the drive has a file (read into drive), 0 when it has none, -1
// when the file cannot be read or parsed.
int drive_read(const std::string &path, Drive &drive)
{
	File file(fopen(path.c_str(), "r"));
	if (!file)
		return errno == ENOENT ? 0 : -1;
	bool ok = fscanf(file.get(), "%d\n%d\n", &drive.state, &drive.tries) == 2 &&
		  fgets(drive.password, sizeof(drive.password), file.get()) != nullptr;
	if (!ok || drive.state < 0 || drive.state > 2)
		return -1;
	drive.password[strcspn(drive.password, "\n")] = '\0';
	return 1;
}

}  // namespace

extern "C" int disk_probe(const char *disk_name)
{
	std::optional<std::string> path = drive_path(disk_name);
	Drive drive;
	int found = path ? drive_read(*path, drive) : -1;
	return found <= 0 ? found : drive.state;
}

extern "C" int disk_unlock(const char *disk_name, const char *password)
{
	std::optional<std::string> path = password != nullptr ? drive_path(disk_name) : std::nullopt;
	Drive drive;
	int found = path ? drive_read(*path, drive) : -1;
	if (found <= 0 || drive.state != 1)
		return found <= 0 ? found : drive.state;
	if (strcmp(password, drive.password) == 0) {
		drive.state = 0;
	} else if (--drive.tries <= 0) {
		drive.tries = 0;
		drive.state = 2;
	}
	File file(fopen(path->c_str(), "w"));
	bool written = file && fprintf(file.get(), "%d\n%d\n%s\n", drive.state, drive.tries,
				       drive.password) > 0;
	return file && fclose(file.release()) == 0 && written ? drive.state : -1;
}
