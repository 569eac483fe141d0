// sysconf: the device's store tool.  Reads and writes the three gdbm stores
// with the daemon's own store code, so paths, environment overrides and the
// record format are the daemon's.
#include <err.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <map>
#include <new>
#include <string>

#include "conf/backup.h"
#include "conf/store.h"
#include "core/owned.h"
#include "tools/sysconf.h"
#include "tools/toolutil.h"

namespace {

using hx::conf::Store;
using hx::json::Ptr;
using hx::tools::Args;
using hx::tools::must;
using hx::tools::usage_error;

enum Status : int {
	ok = 0,
	absent = 1,	// key absent or its value empty
	bad_input = 2,
	no_store = 3,	// store cannot be opened or written
};

struct Options {
	Store store = Store::sysconf;
	bool raw = false;
	bool help = false;
};

struct StoreName {
	const char *name;
	Store store;
	const char *what;
	const char *env;
};

constexpr StoreName stores[] = {
	{"sysconf", Store::sysconf, "persistent settings", "DB_FILE"},
	{"rtconf", Store::rtconf, "run-time state", "RT_DB_FILE"},
	{"sysinfo", Store::sysinfo, "product information", "INFO_DB_FILE"},
};

// no_store, with the reason of the last failed gdbm_open.
int open_failed(const char *path)
{
	int sys = errno;
	gdbm_error err = gdbm_errno;
	if (gdbm_check_syserr(err))
		warnx("cannot open %s: %s: %s", path, gdbm_strerror(err), strerror(sys));
	else
		warnx("cannot open %s: %s", path, gdbm_strerror(err));
	return no_store;
}

// ok when path opens as a reader or as a writer (which creates the file,
// mode 0664 less the umask), else no_store with the reason.
int check_open(const char *path, bool writer)
{
	return (writer ? hx::conf::open_writer(path) : hx::conf::open_reader(path)) ? ok : open_failed(path);
}

// Stores text (plus its NUL) under key in a store checked writable.
int store(const char *path, const char *key, std::string_view text)
{
	if (hx::conf::set(path, key, text) == 0)
		return ok;
	warnx("%s: not stored in %s", key, path);
	return no_store;
}

int get(const Options &opt, Args words)
{
	const char *path = hx::conf::path(opt.store);
	if (std::optional<std::string> value = hx::conf::get(path, words[0])) {
		printf("%s\n", value->c_str());
		return ok;
	}
	if (int status = check_open(path, false); status != ok)
		return status;
	warnx("%s: no value", words[0]);
	return absent;
}

// The text that set stores: VALUE as given with --raw, else the daemon's
// pref-set rendering of the JSON value; nullopt for bad input.
std::optional<std::string> set_text(const Options &opt, const char *value)
{
	if (opt.raw) {
		if (*value != '\0')
			return value;
		warnx("empty value (an empty value counts as absent)");
		return std::nullopt;
	}
	if (std::optional<Ptr> parsed = hx::tools::json_text(value))
		return must(json_object_to_json_string(parsed->get()));
	warnx("not JSON text: %s (use --raw for plain text)", value);
	return std::nullopt;
}

int set(const Options &opt, Args words)
{
	std::optional<std::string> text = set_text(opt, words[1]);
	if (!text)
		return bad_input;
	const char *path = hx::conf::path(opt.store);
	int status = check_open(path, true);
	return status == ok ? store(path, words[0], *text) : status;
}

// gdbm hands out malloc'ed records.
using hx::conf::Record;

// A record's text: up to its first NUL, or its stored size.
std::string text_of(datum d)
{
	return d.dptr != nullptr ? std::string(d.dptr, strnlen(d.dptr, static_cast<size_t>(d.dsize)))
				 : std::string();
}

struct Value {
	std::string text;
	bool key_has_nul;	// stored as the daemon stores keys
};

// Every record by key text.  A key stored both with and without its NUL
// keeps the NUL form: the one the daemon reads.
std::map<std::string, Value> read_records(GDBM_FILE db)
{
	std::map<std::string, Value> records;
	for (datum key = gdbm_firstkey(db); key.dptr != nullptr;) {
		Record key_owner(key.dptr);
		datum value = gdbm_fetch(db, key);
		Record value_owner(value.dptr);
		bool has_nul = key.dsize > 0 && key.dptr[key.dsize - 1] == '\0';
		Value &v = records[text_of(key)];
		if (has_nul || !v.key_has_nul)
			v = {text_of(value), has_nul};
		key = gdbm_nextkey(db, key);
	}
	return records;
}

// A stored value as the daemon reads it back (json_tokener_parse, with the
// literal null kept as null), else, or with --raw, its text as a string.
Ptr dump_value(const std::string &text, bool raw)
{
	json_tokener_error err = json_tokener_error_parse_unexpected;
	Ptr value(raw ? nullptr : json_tokener_parse_verbose(text.c_str(), &err));
	if (err == json_tokener_success)
		return value;
	return Ptr(must(json_object_new_string(text.c_str())));
}

int dump(const Options &opt, Args)
{
	const char *path = hx::conf::path(opt.store);
	hx::conf::Db db = hx::conf::open_reader(path);
	if (!db)
		return open_failed(path);
	std::map<std::string, Value> records = read_records(db.get());
	db.reset();
	Ptr all(must(json_object_new_object()));
	for (const auto &[key, value] : records)
		hx::tools::add(all.get(), key.c_str(), dump_value(value.text, opt.raw));
	printf("%s\n", json_object_to_json_string_ext(all.get(), JSON_C_TO_STRING_PRETTY |
			       JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE));
	return ok;
}

// The whole of a file; nullopt with the reason.
std::optional<std::string> read_file(const char *file)
{
	hx::FilePtr f = hx::open_file(file, "r");
	std::string text;
	std::array<char, 4096> buf;
	size_t n;
	while (f && (n = fread(buf.data(), 1, buf.size(), f.get())) > 0)
		text.append(buf.data(), n);
	if (f && !ferror(f.get()))
		return text;
	warn("cannot read %s", file);
	return std::nullopt;
}

// The JSON object of a file; nullopt for bad input, with the reason.  A
// NUL inside the file makes it no JSON text.
std::optional<Ptr> load_object(const char *file)
{
	std::optional<std::string> text = read_file(file);
	if (!text)
		return std::nullopt;
	std::optional<Ptr> object;
	if (text->find('\0') == std::string::npos)
		object = hx::tools::json_text(text->c_str());
	if (object && hx::json::is(object->get(), json_type_object))
		return object;
	warnx("%s: not a JSON object", file);
	return std::nullopt;
}

int load(const Options &opt, Args words)
{
	std::optional<Ptr> object = load_object(words[0]);
	if (!object)
		return bad_input;
	// With --raw an empty string would be stored as nothing, which the
	// store refuses: it is checked before anything is stored.
	json_object_object_foreach(object->get(), name, member) {
		if (opt.raw && hx::json::string(member) == "") {
			warnx("%s: %s: empty value", words[0], name);
			return bad_input;
		}
	}
	const char *path = hx::conf::path(opt.store);
	if (int status = check_open(path, true); status != ok)
		return status;
	json_object_object_foreach(object->get(), key, value) {
		const char *text = opt.raw && hx::json::is(value, json_type_string)
					   ? hx::json::text(value) : must(json_object_to_json_string(value));
		if (int status = store(path, key, text); status != ok)
			return status;
	}
	return ok;
}

// A new file beside the store that replaces it (rep, import); removed
// unless it was renamed over the store.
struct Replacement {
	std::string path;	// empty: nothing to remove
	hx::UniqueFd fd;

	~Replacement()
	{
		if (!path.empty())
			unlink(path.c_str());
	}
};

// Creates "<store>.rep.XXXXXX" (mode 0600 until it is installed).
int create(Replacement &r, const char *store)
{
	std::string path = std::string(store) + ".rep.XXXXXX";
	if (path.size() >= PATH_MAX) {
		warnx("%s: path too long", store);
		return no_store;
	}
	r.fd.reset(mkstemp(path.data()));
	if (!r.fd) {
		warn("cannot create a file beside %s", store);
		return no_store;
	}
	r.path = std::move(path);
	return ok;
}

int write_all(const Replacement &r, std::string_view data)
{
	while (!data.empty()) {
		ssize_t put = write(r.fd.get(), data.data(), data.size());
		if (put < 0 && errno != EINTR) {
			warn("cannot write %s", r.path.c_str());
			return no_store;
		}
		data.remove_prefix(put > 0 ? static_cast<size_t>(put) : 0);
	}
	return ok;
}

// Copies the whole of file into the replacement.
int copy(const Replacement &r, const char *file)
{
	hx::UniqueFd in(open(file, O_RDONLY | O_CLOEXEC));
	std::array<char, 8192> buf;
	ssize_t got = -1;
	while (in && (got = read(in.get(), buf.data(), buf.size())) != 0) {
		if (got < 0 && errno == EINTR)
			continue;
		if (got < 0)
			break;
		if (int status = write_all(r, {buf.data(), static_cast<size_t>(got)}); status != ok)
			return status;
	}
	if (got == 0)
		return ok;
	warn("cannot read %s", file);
	return bad_input;
}

// Makes a rename in the directory of path durable.
bool sync_dir(std::string_view path)
{
	size_t slash = path.rfind('/');
	std::string dir(slash == 0 ? "/" : slash == path.npos ? "." : path.substr(0, slash));
	hx::UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	return fd && fsync(fd.get()) == 0;
}

// Checks that the replacement opens as a gdbm store (naming what it came
// from when not), gives it the mode of a store that the daemon creates
// (0664 less the umask), syncs it and renames it over the store, so that a
// power cut leaves either the old or the new store whole.
int install(Replacement &r, const char *store, const char *what, const char *not_store)
{
	if (!hx::conf::open_reader(r.path.c_str())) {
		warnx("%s: %s (%s)", what, not_store, gdbm_strerror(gdbm_errno));
		return bad_input;
	}
	mode_t mask = umask(0);
	umask(mask);
	bool written = fchmod(r.fd.get(), 0664 & ~mask) == 0 && fsync(r.fd.get()) == 0;
	// The one close whose result counts; a successful one leaves errno be.
	if (close(r.fd.release()) != 0)
		written = false;
	if (!written) {
		warn("cannot write %s", r.path.c_str());
		return no_store;
	}
	if (rename(r.path.c_str(), store) != 0) {
		warn("cannot replace %s", store);
		return no_store;
	}
	r.path.clear();
	if (!sync_dir(store)) {
		warn("%s replaced, but its directory not synced", store);
		return no_store;
	}
	return ok;
}

int rep(const Options &opt, Args words)
{
	const char *store = hx::conf::path(opt.store);
	Replacement r;
	int status = create(r, store);
	if (status == ok)
		status = copy(r, words[0]);
	return status == ok ? install(r, store, words[0], "not a gdbm store") : status;
}

int export_backup(const Options &opt, Args words)
{
	return db_to_conf(hx::conf::path(opt.store), words[0]) == 0 ? ok : no_store;
}

int import_backup(const Options &opt, Args words)
{
	const char *store = hx::conf::path(opt.store);
	Replacement r;
	int status = create(r, store);
	// conf_to_db truncates and fills the same file through its own stream.
	if (status == ok && conf_to_db(r.path.c_str(), words[0]) != 0)
		status = bad_input;
	return status == ok ? install(r, store, words[0], "the payload is not a gdbm store") : status;
}

struct Command {
	const char *name;
	size_t nargs;
	int (*run)(const Options &opt, Args words);
	const char *synopsis;	// the words after the name
	const char *help;	// description and examples
};

constexpr Command commands[] = {
	{"get", 1, get, "KEY",
	 "print the stored value text of KEY\n"
	 "    sysconf get lan_ipaddr\n"},
	{"set", 2, set, "KEY VALUE",
	 "store VALUE, JSON text, as hxsrvd's pref-set stores it;\n"
	 "with --raw, store VALUE as plain text\n"
	 "    sysconf set wl_ssid '\"Trip\"'\n"
	 "    sysconf --store rtconf --raw set sync_result 1\n"},
	{"dump", 0, dump, "",
	 "print all records as one JSON object sorted by key: values that\n"
	 "parse as JSON as that value, others as strings; with --raw,\n"
	 "every value as a string\n"
	 "    sysconf --store rtconf dump\n"},
	{"load", 1, load, "FILE",
	 "store every member of the JSON object in FILE, creating the store\n"
	 "if needed; with --raw, string values as plain text\n"
	 "    sysconf load /tmp/defaults.json\n"},
	{"rep", 1, rep, "FILE",
	 "replace the store with a copy of the gdbm file FILE, atomically\n"
	 "(a power cut leaves the old or the new store whole); a FILE that\n"
	 "is not a gdbm store is refused and the store left as it is\n"
	 "    sysconf rep /var/tmp/new_sysconf.gdbm\n"},
	{"export", 1, export_backup, "BACKUP",
	 "write the store's file as a backup file (header, checksum,\n"
	 "DES-enciphered payload); its messages go to stdout\n"
	 "    sysconf export /tmp/sysconf.bak\n"},
	{"import", 1, import_backup, "BACKUP",
	 "replace the store, as rep does, with the one in the backup file\n"
	 "BACKUP; a backup that is refused (its messages on stdout) or\n"
	 "that does not hold a gdbm store leaves the store as it is\n"
	 "    sysconf import /tmp/sysconf.bak\n"},
};

void print_help()
{
	puts("Usage: sysconf [--store STORE] [--raw] COMMAND [ARG...]\n"
	     "Read and write hxsrvd's configuration stores (key and value text,\n"
	     "each stored with its NUL).\n\nCommands:");
	for (const Command &c : commands) {
		printf("  %s%s%s\n", c.name, *c.synopsis != '\0' ? " " : "", c.synopsis);
		for (std::string_view text = c.help; !text.empty();) {
			size_t end = text.find('\n');
			std::string_view line = text.substr(0, end);
			printf("      %.*s\n", static_cast<int>(line.size()), line.data());
			text.remove_prefix(end == text.npos ? text.size() : end + 1);
		}
	}
	puts("\nOptions:\n"
	     "  --store STORE  the store to use, default sysconf:");
	for (const StoreName &s : stores)
		printf("      %-8s %s, $%s, now %s\n", s.name, s.what, s.env,
		       hx::conf::path(s.store));
	puts("  --raw          values are plain text, not JSON text\n"
	     "  -h, --help     print this help\n"
	     "\nExit status:\n"
	     "  0   success\n"
	     "  1   the key is absent or its value empty\n"
	     "  2   bad input: VALUE or FILE is not what the command takes\n"
	     "  3   the store cannot be opened or written\n"
	     "  64  usage error");
}

int parse_options(Options &opt, int argc, char **argv)
{
	static constexpr option longopts[] = {
		{"store", required_argument, nullptr, 's'},
		{"raw", no_argument, nullptr, 'r'},
		{"help", no_argument, nullptr, 'h'},
		{nullptr, 0, nullptr, 0},
	};
	opterr = 0;
	int c;
	while ((c = getopt_long(argc, argv, "+:h", longopts, nullptr)) != -1) {
		if (c == 's') {
			const StoreName *s = hx::tools::find(stores, optarg);
			if (s == nullptr)
				return usage_error("unknown store '%s' (sysconf, rtconf or sysinfo)", optarg);
			opt.store = s->store;
		} else if (c == 'r') {
			opt.raw = true;
		} else if (c == 'h') {
			opt.help = true;
			return ok;
		} else {	// ':' or '?'
			return hx::tools::option_error(c, argv);
		}
	}
	return ok;
}

int run(int argc, char **argv)
{
	Options opt;
	if (int status = parse_options(opt, argc, argv); status != ok)
		return status;
	if (opt.help) {
		print_help();
		return ok;
	}
	Args words(argv + optind, static_cast<size_t>(argc - optind));
	if (words.empty())
		return usage_error("missing command");
	const Command *cmd = hx::tools::find(commands, words[0]);
	if (cmd == nullptr)
		return usage_error("unknown command '%s'", words[0]);
	if (words.size() - 1 != cmd->nargs)
		return usage_error("usage: sysconf [--store STORE] [--raw] %s%s%s", cmd->name,
				   *cmd->synopsis != '\0' ? " " : "", cmd->synopsis);
	return cmd->run(opt, words.subspan(1));
}

}  // namespace

int sysconf_main(int argc, char **argv)
{
	try {
		return run(argc, argv);
	} catch (const std::bad_alloc &) {
		hx::tools::out_of_memory();
	}
}
