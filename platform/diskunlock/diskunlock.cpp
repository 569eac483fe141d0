/* Substitute for the closed disk-unlock library (DESIGN.md section 4).
 *
 * Each password-locked drive has one text file named after the drive in
 * the directory $HX_DISKUNLOCK_DIR (default "/var/lib/hxsim-diskunlock"),
 * holding three lines: the lock state (0, 1 or 2), the unlock attempts
 * left, and the password.  A drive without a file has no password lock
 * and is unlocked (0).  A file that cannot be read or parsed, or a drive
 * name that is empty, too long or holds '/', gives -1.  A wrong password
 * uses an attempt; the last one turns the state into 2, and a drive in
 * state 2 refuses every password. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "diskunlock.h"

#define DEFAULT_DIR "/var/lib/hxsim-diskunlock"

struct drive {
	int state;
	int tries;
	char password[128];
};

static int
drive_path(const char *disk_name, char *path, size_t size)
{
	const char *dir = getenv("HX_DISKUNLOCK_DIR");
	int n;

	if (disk_name == NULL || disk_name[0] == '\0' || disk_name[0] == '.' ||
	    strchr(disk_name, '/') != NULL || strlen(disk_name) > 15)
		return -1;
	if (dir == NULL || dir[0] == '\0')
		dir = DEFAULT_DIR;
	n = snprintf(path, size, "%s/%s", dir, disk_name);
	return n < 0 || (size_t)n >= size ? -1 : 0;
}

/* 1 when the drive has a file, 0 when it has none, -1 on error. */
static int
drive_read(const char *path, struct drive *drive)
{
	FILE *f = fopen(path, "r");
	int ok;

	if (f == NULL)
		return errno == ENOENT ? 0 : -1;
	ok = fscanf(f, "%d\n%d\n", &drive->state, &drive->tries) == 2 &&
	     fgets(drive->password, sizeof(drive->password), f) != NULL;
	fclose(f);
	if (!ok || drive->state < 0 || drive->state > 2)
		return -1;
	drive->password[strcspn(drive->password, "\n")] = '\0';
	return 1;
}

static int
drive_write(const char *path, const struct drive *drive)
{
	FILE *f = fopen(path, "w");
	int ok;

	if (f == NULL)
		return -1;
	ok = fprintf(f, "%d\n%d\n%s\n", drive->state, drive->tries, drive->password) > 0;
	return fclose(f) == 0 && ok ? 0 : -1;
}

int
disk_probe(const char *disk_name)
{
	char path[512];
	struct drive drive;
	int found;

	if (drive_path(disk_name, path, sizeof(path)) != 0)
		return -1;
	found = drive_read(path, &drive);
	return found <= 0 ? found : drive.state;
}

int
disk_unlock(const char *disk_name, const char *password)
{
	char path[512];
	struct drive drive;
	int found;

	if (password == NULL || drive_path(disk_name, path, sizeof(path)) != 0)
		return -1;
	found = drive_read(path, &drive);
	if (found <= 0 || drive.state != 1)
		return found <= 0 ? found : drive.state;
	if (strcmp(password, drive.password) == 0)
		drive.state = 0;
	else if (--drive.tries <= 0) {
		drive.tries = 0;
		drive.state = 2;
	}
	return drive_write(path, &drive) == 0 ? drive.state : -1;
}
