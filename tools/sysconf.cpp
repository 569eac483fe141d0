/* sysconf: the device's store tool.  Reads and writes the three gdbm stores
 * of spec Part 3.1 through the store layer (conf/confdb.h), with the same
 * paths, environment overrides and record format as hxsrvd. */
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <event2/buffer.h>
#include <json-c/json.h>

#include "conf/backup.h"
#include "conf/confdb.h"
#include "core/util.h"
#include "toolutil.h"

enum sysconf_status {
	SYSCONF_OK = 0,
	SYSCONF_ABSENT = 1,	/* key absent or its value empty */
	SYSCONF_BAD_INPUT = 2,
	SYSCONF_NO_STORE = 3,	/* store cannot be opened or written */
	SYSCONF_USAGE = EX_USAGE,	/* 64 */
};

/* The help lists out of memory with the store failures, under status 3. */
const int tool_out_of_memory_status = SYSCONF_NO_STORE;

struct sysconf_options {
	enum conf_store store;
	int raw;
	int help;
};

/* Runs a command on its exact number of words; returns the exit status,
 * with any message already printed. */
typedef int (*sysconf_fn)(const struct sysconf_options *opt, char **argv);

struct sysconf_command {
	const char *name;
	int nargs;
	sysconf_fn run;
	const char *synopsis;	/* the words after the name */
	const char *help;	/* description and examples, indented */
};

struct sysconf_record {
	char *key;		/* text up to the first NUL or the stored length */
	char *value;
	int key_has_nul;	/* stored as the daemon stores keys */
};

static const struct {
	const char *name;
	enum conf_store store;
	const char *what;
	const char *env;
} sysconf_stores[] = {
	{ "sysconf", CONF_SYSCONF, "persistent settings", "DB_FILE" },
	{ "rtconf", CONF_RTCONF, "run-time state", "RT_DB_FILE" },
	{ "sysinfo", CONF_SYSINFO, "product information", "INFO_DB_FILE" },
};

#define NELEM(a) (sizeof(a) / sizeof((a)[0]))

/* The reason of the last failed gdbm_open. */
static void
store_open_failed(const char *path)
{
	int sys = errno;
	gdbm_error err = gdbm_errno;

	if (gdbm_check_syserr(err))
		fprintf(stderr, "sysconf: cannot open %s: %s: %s\n", path, gdbm_strerror(err),
			strerror(sys));
	else
		fprintf(stderr, "sysconf: cannot open %s: %s\n", path, gdbm_strerror(err));
}

/* SYSCONF_OK when path opens in the given mode (a writer open creates the
 * file, mode 0664 less the umask), else SYSCONF_NO_STORE with the reason. */
static int
store_check(const char *path, int writer)
{
	GDBM_FILE db = writer ? confOpenWriter(path) : confOpenReader(path);

	if (db == NULL) {
		store_open_failed(path);
		return SYSCONF_NO_STORE;
	}
	gdbm_close(db);
	return SYSCONF_OK;
}

/* Stores text (plus its NUL) under key; the store was checked writable. */
static int
store_text(const char *path, const char *key, const char *text)
{
	struct evbuffer *buf = must(evbuffer_new());
	int r;

	if (evbuffer_add(buf, text, strlen(text)) != 0)
		must_(NULL);
	r = confSet(path, key, buf);
	evbuffer_free(buf);
	if (r == 0)
		return SYSCONF_OK;
	fprintf(stderr, "sysconf: %s: not stored in %s\n", key, path);
	return SYSCONF_NO_STORE;
}

static int
cmd_get(const struct sysconf_options *opt, char **argv)
{
	const char *path = confStorePath(opt->store);
	struct evbuffer *buf = must(evbuffer_new());
	int status = SYSCONF_OK;

	if (confGet(path, argv[0], buf) == 0) {
		/* confGet leaves the value's NUL in the buffer. */
		printf("%s\n", (const char *)evbuffer_pullup(buf, -1));
	} else if ((status = store_check(path, 0)) == SYSCONF_OK) {
		fprintf(stderr, "sysconf: %s: no value\n", argv[0]);
		status = SYSCONF_ABSENT;
	}
	evbuffer_free(buf);
	return status;
}

/* The text that set stores for value: as given with --raw, else the
 * daemon's pref-set rendering of the JSON value.  NULL for bad input. */
static char *
set_text(const struct sysconf_options *opt, const char *value)
{
	struct json_object *parsed;
	char *text;

	if (opt->raw) {
		if (value[0] == '\0') {
			fputs("sysconf: empty value (an empty value counts as absent)\n", stderr);
			return NULL;
		}
		return must(strdup(value));
	}
	if (!json_text(value, &parsed)) {
		fprintf(stderr, "sysconf: not JSON text: %s (use --raw for plain text)\n", value);
		return NULL;
	}
	text = must(strdup(json_object_to_json_string(parsed)));
	json_object_put(parsed);
	return text;
}

static int
cmd_set(const struct sysconf_options *opt, char **argv)
{
	const char *path = confStorePath(opt->store);
	char *text = set_text(opt, argv[1]);
	int status;

	if (text == NULL)
		return SYSCONF_BAD_INPUT;
	status = store_check(path, 1);
	if (status == SYSCONF_OK)
		status = store_text(path, argv[0], text);
	free(text);
	return status;
}

static int
record_cmp(const void *a, const void *b)
{
	const struct sysconf_record *ra = static_cast<const struct sysconf_record *>(a), *rb = static_cast<const struct sysconf_record *>(b);
	int r = strcmp(ra->key, rb->key);

	return r != 0 ? r : ra->key_has_nul - rb->key_has_nul;
}

static void
record_add(struct sysconf_record **records, size_t *n, GDBM_FILE db, datum key)
{
	datum value = gdbm_fetch(db, key);
	struct sysconf_record *r;

	if ((*n & (*n - 1)) == 0)	/* n is 0 or a power of two: double */
		*records = must((struct sysconf_record *)reallocarray(*records, *n == 0 ? 1 : *n * 2, sizeof(**records)));
	r = &(*records)[(*n)++];
	r->key = must(strndup(key.dptr, (size_t)key.dsize));
	r->key_has_nul = key.dsize > 0 && key.dptr[key.dsize - 1] == '\0';
	r->value = must(value.dptr != NULL ? strndup(value.dptr, (size_t)value.dsize) : strdup(""));
	free(value.dptr);
}

/* Every record of the store, sorted by key; the count in *n. */
static struct sysconf_record *
records_read(GDBM_FILE db, size_t *n)
{
	struct sysconf_record *records = NULL;
	datum key = gdbm_firstkey(db);

	*n = 0;
	while (key.dptr != NULL) {
		datum next;

		record_add(&records, n, db, key);
		next = gdbm_nextkey(db, key);
		free(key.dptr);
		key = next;
	}
	if (*n > 0)
		qsort(records, *n, sizeof(*records), record_cmp);
	return records;
}

/* A stored value as the daemon reads it back (json_tokener_parse, with the
 * literal null kept as null), else, or with --raw, its text as a string. */
static struct json_object *
dump_value(const char *text, int raw)
{
	enum json_tokener_error err = json_tokener_error_parse_unexpected;
	struct json_object *value = raw ? NULL : json_tokener_parse_verbose(text, &err);

	if (err == json_tokener_success)
		return value;
	return must(json_object_new_string(text));
}

static int
cmd_dump(const struct sysconf_options *opt, char **argv)
{
	const char *path = confStorePath(opt->store);
	GDBM_FILE db = confOpenReader(path);
	struct json_object *all;
	struct sysconf_record *records;
	size_t i, n;

	(void)argv;
	if (db == NULL) {
		store_open_failed(path);
		return SYSCONF_NO_STORE;
	}
	records = records_read(db, &n);
	gdbm_close(db);
	all = must(json_object_new_object());
	/* A key stored both with and without its NUL shows the NUL form,
	 * which sorts last: the one the daemon reads. */
	for (i = 0; i < n; i++) {
		if (json_object_object_add(all, records[i].key, dump_value(records[i].value, opt->raw)) != 0)
			must_(NULL);
		free(records[i].key);
		free(records[i].value);
	}
	free(records);
	printf("%s\n", json_object_to_json_string_ext(all, JSON_C_TO_STRING_PRETTY |
		JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE));
	json_object_put(all);
	return SYSCONF_OK;
}

/* The whole of a file as a NUL-terminated text; NULL with the reason.  A
 * NUL inside the file makes it "" (not JSON). */
static char *
file_read(const char *file)
{
	FILE *f = fopen(file, "r");
	char *text = NULL;
	size_t size = 0;
	ssize_t len;

	if (f == NULL) {
		fprintf(stderr, "sysconf: cannot read %s: %s\n", file, strerror(errno));
		return NULL;
	}
	len = getdelim(&text, &size, '\0', f);
	if (len < 0 && ferror(f)) {
		fprintf(stderr, "sysconf: cannot read %s: %s\n", file, strerror(errno));
		free(text);
		text = NULL;
	} else if (len < 0 || strlen(text) != (size_t)len) {
		free(text);
		text = must(strdup(""));
	}
	fclose(f);
	return text;
}

/* The JSON object of a file; NULL for bad input, with the reason. */
static struct json_object *
load_object(const char *file)
{
	char *text = file_read(file);
	struct json_object *obj = NULL;

	if (text == NULL)
		return NULL;
	if (!json_text(text, &obj) || !json_object_is_type(obj, json_type_object)) {
		fprintf(stderr, "sysconf: %s: not a JSON object\n", file);
		json_object_put(obj);
		obj = NULL;
	}
	free(text);
	return obj;
}

/* With --raw an empty string would be stored as nothing, which the store
 * refuses; it is checked before anything is stored. */
static int
load_check(const struct sysconf_options *opt, const char *file, struct json_object *obj)
{
	json_object_object_foreach(obj, key, val) {
		if (opt->raw && json_object_is_type(val, json_type_string) &&
		    json_object_get_string_len(val) == 0) {
			fprintf(stderr, "sysconf: %s: %s: empty value\n", file, key);
			return SYSCONF_BAD_INPUT;
		}
	}
	return SYSCONF_OK;
}

static int
load_store(const struct sysconf_options *opt, const char *path, struct json_object *obj)
{
	json_object_object_foreach(obj, key, val) {
		const char *text = opt->raw && json_object_is_type(val, json_type_string) ?
			json_object_get_string(val) : json_object_to_json_string(val);
		int status = store_text(path, key, text);

		if (status != SYSCONF_OK)
			return status;
	}
	return SYSCONF_OK;
}

static int
cmd_load(const struct sysconf_options *opt, char **argv)
{
	const char *path = confStorePath(opt->store);
	struct json_object *obj = load_object(argv[0]);
	int status;

	if (obj == NULL)
		return SYSCONF_BAD_INPUT;
	status = load_check(opt, argv[0], obj);
	if (status == SYSCONF_OK)
		status = store_check(path, 1);
	if (status == SYSCONF_OK)
		status = load_store(opt, path, obj);
	json_object_put(obj);
	return status;
}

/* A new file beside the store that replaces it (rep, import): its path and
 * descriptor. */
struct store_temp {
	char path[PATH_MAX];
	int fd;
};

/* Creates "<store>.rep.XXXXXX" (mode 0600 until installed). */
static int
temp_create(struct store_temp *t, const char *store)
{
	int n = snprintf(t->path, sizeof(t->path), "%s.rep.XXXXXX", store);

	if (n < 0 || (size_t)n >= sizeof(t->path)) {
		fprintf(stderr, "sysconf: %s: path too long\n", store);
		return SYSCONF_NO_STORE;
	}
	t->fd = mkstemp(t->path);
	if (t->fd < 0) {
		fprintf(stderr, "sysconf: cannot create a file beside %s: %s\n", store,
			strerror(errno));
		return SYSCONF_NO_STORE;
	}
	return SYSCONF_OK;
}

/* Removes the temporary file after any failure; passes status on. */
static int
temp_discard(struct store_temp *t, int status)
{
	if (t->fd >= 0)
		close(t->fd);
	unlink(t->path);
	return status;
}

static int
temp_write(struct store_temp *t, const char *buf, size_t len)
{
	while (len > 0) {
		ssize_t put = write(t->fd, buf, len);

		if (put < 0 && errno == EINTR)
			continue;
		if (put < 0) {
			fprintf(stderr, "sysconf: cannot write %s: %s\n", t->path, strerror(errno));
			return SYSCONF_NO_STORE;
		}
		buf += put;
		len -= (size_t)put;
	}
	return SYSCONF_OK;
}

/* Copies the whole of file to the temporary file. */
static int
temp_copy(struct store_temp *t, const char *file)
{
	char buf[8192];
	int in = open(file, O_RDONLY | O_CLOEXEC);
	int status = SYSCONF_OK;

	if (in < 0) {
		fprintf(stderr, "sysconf: cannot read %s: %s\n", file, strerror(errno));
		return SYSCONF_BAD_INPUT;
	}
	for (;;) {
		ssize_t got = read(in, buf, sizeof(buf));

		if (got == 0)
			break;
		if (got < 0 && errno == EINTR)
			continue;
		if (got < 0) {
			fprintf(stderr, "sysconf: cannot read %s: %s\n", file, strerror(errno));
			status = SYSCONF_BAD_INPUT;
			break;
		}
		status = temp_write(t, buf, (size_t)got);
		if (status != SYSCONF_OK)
			break;
	}
	close(in);
	return status;
}

/* SYSCONF_OK when the temporary file opens as a gdbm store, else
 * SYSCONF_BAD_INPUT with the reason, naming what (the file it came from). */
static int
temp_check(const struct store_temp *t, const char *what, const char *not_store)
{
	GDBM_FILE db = confOpenReader(t->path);

	if (db == NULL) {
		fprintf(stderr, "sysconf: %s: %s (%s)\n", what, not_store, gdbm_strerror(gdbm_errno));
		return SYSCONF_BAD_INPUT;
	}
	gdbm_close(db);
	return SYSCONF_OK;
}

/* Makes a rename in the directory of path durable. */
static int
dir_sync(const char *path)
{
	char dir[PATH_MAX];
	char *slash;
	int fd, r;

	strlcpy(dir, path, sizeof(dir));	/* fits: path fitted a longer name */
	slash = strrchr(dir, '/');
	if (slash == NULL)
		strlcpy(dir, ".", sizeof(dir));
	else
		slash[slash == dir] = '\0';	/* "/x" keeps "/" */
	fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (fd < 0)
		return -1;
	r = fsync(fd);
	close(fd);
	return r;
}

/* Gives the temporary file the mode of a store that the daemon creates
 * (0664 less the umask), syncs it and renames it over the store, so that a
 * power cut leaves either the old or the new store whole. */
static int
temp_install(struct store_temp *t, const char *store)
{
	mode_t mask = umask(0);
	int fd = t->fd;
	int r;

	umask(mask);
	t->fd = -1;
	r = fchmod(fd, 0664 & ~mask) == 0 && fsync(fd) == 0 ? 0 : -1;
	if (close(fd) != 0)	/* a successful close leaves errno as it was */
		r = -1;
	if (r != 0) {
		fprintf(stderr, "sysconf: cannot write %s: %s\n", t->path, strerror(errno));
		return temp_discard(t, SYSCONF_NO_STORE);
	}
	if (rename(t->path, store) != 0) {
		fprintf(stderr, "sysconf: cannot replace %s: %s\n", store, strerror(errno));
		return temp_discard(t, SYSCONF_NO_STORE);
	}
	if (dir_sync(store) != 0) {
		fprintf(stderr, "sysconf: %s replaced, but its directory not synced: %s\n", store,
			strerror(errno));
		return SYSCONF_NO_STORE;
	}
	return SYSCONF_OK;
}

/* Checks the filled temporary file and installs it as the store. */
static int
temp_finish(struct store_temp *t, const char *store, const char *what, const char *not_store)
{
	int status = temp_check(t, what, not_store);

	if (status != SYSCONF_OK)
		return temp_discard(t, status);
	return temp_install(t, store);
}

static int
cmd_rep(const struct sysconf_options *opt, char **argv)
{
	const char *store = confStorePath(opt->store);
	struct store_temp t;
	int status = temp_create(&t, store);

	if (status != SYSCONF_OK)
		return status;
	status = temp_copy(&t, argv[0]);
	if (status != SYSCONF_OK)
		return temp_discard(&t, status);
	return temp_finish(&t, store, argv[0], "not a gdbm store");
}

static int
cmd_export(const struct sysconf_options *opt, char **argv)
{
	return db_to_conf(confStorePath(opt->store), argv[0]) == 0 ? SYSCONF_OK : SYSCONF_NO_STORE;
}

static int
cmd_import(const struct sysconf_options *opt, char **argv)
{
	const char *store = confStorePath(opt->store);
	struct store_temp t;
	int status = temp_create(&t, store);

	if (status != SYSCONF_OK)
		return status;
	/* conf_to_db truncates and fills the same file through its own stream. */
	if (conf_to_db(t.path, argv[0]) != 0)
		return temp_discard(&t, SYSCONF_BAD_INPUT);
	return temp_finish(&t, store, argv[0], "the payload is not a gdbm store");
}

static const struct sysconf_command sysconf_commands[] = {
	{ "get", 1, cmd_get, "KEY",
	  "print the stored value text of KEY\n"
	  "    sysconf get lan_ipaddr\n" },
	{ "set", 2, cmd_set, "KEY VALUE",
	  "store VALUE, JSON text, as hxsrvd's pref-set stores it;\n"
	  "with --raw, store VALUE as plain text\n"
	  "    sysconf set wl_ssid '\"Trip\"'\n"
	  "    sysconf --store rtconf --raw set sync_result 1\n" },
	{ "dump", 0, cmd_dump, "",
	  "print all records as one JSON object sorted by key: values that\n"
	  "parse as JSON as that value, others as strings; with --raw,\n"
	  "every value as a string\n"
	  "    sysconf --store rtconf dump\n" },
	{ "load", 1, cmd_load, "FILE",
	  "store every member of the JSON object in FILE, creating the store\n"
	  "if needed; with --raw, string values as plain text\n"
	  "    sysconf load /tmp/defaults.json\n" },
	{ "rep", 1, cmd_rep, "FILE",
	  "replace the store with a copy of the gdbm file FILE, atomically\n"
	  "(a power cut leaves the old or the new store whole); a FILE that\n"
	  "is not a gdbm store is refused and the store left as it is\n"
	  "    sysconf rep /var/tmp/new_sysconf.gdbm\n" },
	{ "export", 1, cmd_export, "BACKUP",
	  "write the store's file as a backup file (spec Part 3.2: header,\n"
	  "checksum, DES-enciphered payload); its messages go to stdout\n"
	  "    sysconf export /tmp/sysconf.bak\n" },
	{ "import", 1, cmd_import, "BACKUP",
	  "replace the store, as rep does, with the one in the backup file\n"
	  "BACKUP; a backup that is refused (its messages on stdout) or\n"
	  "that does not hold a gdbm store leaves the store as it is\n"
	  "    sysconf import /tmp/sysconf.bak\n" },
};

static const struct sysconf_command *
command_find(const char *name)
{
	size_t i;

	for (i = 0; i < NELEM(sysconf_commands); i++)
		if (strcmp(sysconf_commands[i].name, name) == 0)
			return &sysconf_commands[i];
	return NULL;
}

/* Prints text with every line indented by indent columns. */
static void
indented_print(const char *text, int indent)
{
	const char *line, *end;

	for (line = text; *line != '\0'; line = end + 1) {
		end = strchrnul(line, '\n');
		printf("%*s%.*s\n", indent, "", (int)(end - line), line);
		if (*end == '\0')
			break;
	}
}

static void
help_print(void)
{
	size_t i;

	puts("Usage: sysconf [--store STORE] [--raw] COMMAND [ARG...]\n"
	     "Read and write hxsrvd's configuration stores (key and value text,\n"
	     "each stored with its NUL).\n\nCommands:");
	for (i = 0; i < NELEM(sysconf_commands); i++) {
		const struct sysconf_command *c = &sysconf_commands[i];

		printf("  %s%s%s\n", c->name, c->synopsis[0] != '\0' ? " " : "", c->synopsis);
		indented_print(c->help, 6);
	}
	puts("\nOptions:\n"
	     "  --store STORE  the store to use, default sysconf:");
	for (i = 0; i < NELEM(sysconf_stores); i++)
		printf("      %-8s %s, $%s, now %s\n", sysconf_stores[i].name, sysconf_stores[i].what,
		       sysconf_stores[i].env, confStorePath(sysconf_stores[i].store));
	puts("  --raw          values are plain text, not JSON text\n"
	     "  -h, --help     print this help\n"
	     "\nExit status:\n"
	     "  0   success\n"
	     "  1   the key is absent or its value empty\n"
	     "  2   bad input: VALUE or FILE is not what the command takes\n"
	     "  3   the store cannot be opened or written\n"
	     "  64  usage error");
}

static int
store_parse(const char *name, enum conf_store *store)
{
	size_t i;

	for (i = 0; i < NELEM(sysconf_stores); i++) {
		if (strcmp(sysconf_stores[i].name, name) == 0) {
			*store = sysconf_stores[i].store;
			return SYSCONF_OK;
		}
	}
	return usage_error("unknown store '%s' (sysconf, rtconf or sysinfo)", name);
}

static int
options_parse(struct sysconf_options *opt, int argc, char **argv)
{
	static const struct option longopts[] = {
		{ "store", required_argument, NULL, 's' },
		{ "raw", no_argument, NULL, 'r' },
		{ "help", no_argument, NULL, 'h' },
		{ NULL, 0, NULL, 0 },
	};
	int c;

	opterr = 0;
	while ((c = getopt_long(argc, argv, "+:h", longopts, NULL)) != -1) {
		switch (c) {
		case 's':
			if (store_parse(optarg, &opt->store) != SYSCONF_OK)
				return SYSCONF_USAGE;
			break;
		case 'r':
			opt->raw = 1;
			break;
		case 'h':
			opt->help = 1;
			return SYSCONF_OK;
		default:	/* ':' or '?' */
			return option_error(c, argv);
		}
	}
	return SYSCONF_OK;
}

int
main(int argc, char **argv)
{
	struct sysconf_options opt = { CONF_SYSCONF, 0, 0 };
	const struct sysconf_command *cmd;
	int status = options_parse(&opt, argc, argv);

	if (status != SYSCONF_OK)
		return status;
	if (opt.help) {
		help_print();
		return SYSCONF_OK;
	}
	if (optind >= argc)
		return usage_error("missing command");
	cmd = command_find(argv[optind]);
	if (cmd == NULL)
		return usage_error("unknown command '%s'", argv[optind]);
	if (argc - optind - 1 != cmd->nargs)
		return usage_error("usage: sysconf [--store STORE] [--raw] %s%s%s", cmd->name,
				   cmd->synopsis[0] != '\0' ? " " : "", cmd->synopsis);
	return cmd->run(&opt, argv + optind + 1);
}
