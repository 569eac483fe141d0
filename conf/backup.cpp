// The backup file and its restore.  The payload is the store file byte for
// byte: its whole 8-byte blocks enciphered one by one (ECB), the rest in
// plain, the checksum taken over the enciphered payload.
#include "conf/backup.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <new>
#include <optional>

#include <mbedtls/des.h>

#include "core/fmt.h"
#include "core/hxassert.h"
#include "core/owned.h"
#include "core/util.h"
#include "ipc/target.h"

namespace {

using hx::conf::backup_header_size;
using Bytes = std::span<unsigned char>;

constexpr const char *upfile = "/var/tmp/upfile";
constexpr const char *upfile_lock = "/var/tmp/upfile.lock";
constexpr const char *db_check_done = "/mnt/rwdata/.db_check_done";
constexpr const char *new_sysconf = "/var/tmp/new_sysconf.gdbm";

// The key built into the device, the same for export and import.
constexpr unsigned char backup_key[MBEDTLS_DES_KEY_SIZE] = {
	0x5A, 0x13, 0xC7, 0x08, 0xE4, 0x91, 0x3D, 0x6B,
};

constexpr std::array<uint32_t, 256> crc32c_table = [] {
	std::array<uint32_t, 256> table{};
	for (uint32_t i = 0; i < 256; i++) {
		uint32_t crc = i;
		for (int bit = 0; bit < 8; bit++)
			crc = (crc & 1) != 0 ? (crc >> 1) ^ 0x82F63B78u : crc >> 1;
		table[i] = crc;
	}
	return table;
}();

class DesContext {
public:
	DesContext() { mbedtls_des_init(&ctx_); }
	~DesContext() { mbedtls_des_free(&ctx_); }
	DesContext(const DesContext &) = delete;
	DesContext &operator=(const DesContext &) = delete;
	mbedtls_des_context *get() { return &ctx_; }

private:
	mbedtls_des_context ctx_;
};

// Enciphers (or deciphers) the whole blocks of data in place.  mbed TLS's
// own DES always succeeds; only a broken build could fail.
void des_blocks(Bytes data, bool encipher)
{
	DesContext des;
	int r = encipher ? mbedtls_des_setkey_enc(des.get(), backup_key)
			 : mbedtls_des_setkey_dec(des.get(), backup_key);
	for (size_t i = 0; r == 0 && data.size() - i >= 8; i += 8)
		r = mbedtls_des_crypt_ecb(des.get(), &data[i], &data[i]);
	hx_assert("backup", r == 0);
}

void put_le32(unsigned char *p, uint32_t v)
{
	for (int i = 0; i < 4; i++)
		p[i] = static_cast<unsigned char>(v >> (8 * i));
}

uint32_t get_le32(const unsigned char *p)
{
	return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

std::optional<off_t> file_size(const char *path)
{
	struct stat st;
	if (stat(path, &st) != 0) {
		printf("stat %s fail\n", path);
		printf("failed to get file size for %s\n", path);
		return std::nullopt;
	}
	return st.st_size;
}

// A zeroed buffer of n + 32 bytes, also when that does not fit in memory
// sizes: empty after "out of memory".
struct Buffer {
	std::unique_ptr<unsigned char[]> bytes;
	size_t size = 0;
	Bytes payload() { return {bytes.get() + backup_header_size, size - backup_header_size}; }
};

Buffer buffer(off_t n)
{
	Buffer buf;
	if (n >= 0 && static_cast<uintmax_t>(n) <= SIZE_MAX - backup_header_size) {
		buf.size = static_cast<size_t>(n) + backup_header_size;
		buf.bytes.reset(new (std::nothrow) unsigned char[buf.size]());
	}
	if (!buf.bytes)
		puts("out of memory");
	return buf;
}

bool read_file(const char *path, Bytes data)
{
	hx::FilePtr file = hx::open_file(path, "rb");
	if (!file) {
		printf("open file %s for read fail\n", path);
		return false;
	}
	if (fread(data.data(), 1, data.size(), file.get()) != data.size()) {
		puts("fread fail");
		return false;
	}
	return true;
}

bool write_file(const char *path, std::span<const unsigned char> data)
{
	hx::FilePtr file = hx::open_file(path, "w+b");
	if (!file) {
		printf("open file %s for write fail\n", path);
		return false;
	}
	size_t put = fwrite(data.data(), 1, data.size(), file.get());
	// a write that the close could not flush failed too
	if (!hx::close_file(std::move(file)) || put != data.size()) {
		puts("fwrite fail");
		return false;
	}
	return true;
}

// The size and the magic number of a backup file of size bytes.
bool header_valid(const char *conf_path, off_t size)
{
	if (size <= static_cast<off_t>(backup_header_size)) {
		puts("invalid configure file, size error");
		return false;
	}
	std::array<unsigned char, backup_header_size> header;
	if (!read_file(conf_path, header))
		puts("fail to read file header");
	else if (get_le32(header.data()) != hx::conf::backup_magic)
		puts("magic number mismatch");
	else
		return true;
	puts("invalid configure file, magic number error");
	return false;
}

// Checks and deciphers the whole backup file in buf into db_path.
bool unwrap(const char *db_path, Buffer &buf)
{
	Bytes payload = buf.payload();
	if (crc32c_(0, payload) != get_le32(buf.bytes.get() + 4)) {
		puts("invalid configure file, crc error");
		return false;
	}
	des_blocks(payload, false);
	if (!write_file(db_path, payload)) {
		printf("fail to write %s\n", db_path);
		return false;
	}
	return true;
}

// Converts the upload and has "sysconf rep" install it, under the lock.
int restore_locked()
{
	if (conf_to_db(new_sysconf, upfile) != 0)
		return -1;
	unlink(db_check_done);
	int status = do_system(hx::format("sysconf rep %s\n", new_sysconf).c_str());
	// -1: no shell could be started, which is no exit status either
	if (status == -1 || !WIFEXITED(status)) {
		puts("system fail");
		return -1;
	}
	if (WEXITSTATUS(status) != 0) {
		printf("system fail, ret=%d\n", WEXITSTATUS(status));
		return -1;
	}
	puts("sysconf success");
	return 0;
}

}  // namespace

uint32_t crc32c_(uint32_t crc, std::span<const unsigned char> data)
{
	for (unsigned char byte : data)
		crc = crc32c_table[(crc ^ byte) & 0xFF] ^ (crc >> 8);
	return crc;
}

int db_to_conf(const char *db_path, const char *conf_path)
{
	std::optional<off_t> size = file_size(db_path);
	if (!size)
		return -1;
	Buffer buf = buffer(*size);
	if (!buf.bytes)
		return -1;
	Bytes payload = buf.payload();
	if (!read_file(db_path, payload)) {
		printf("fail to read %s\n", db_path);
		return -1;
	}
	des_blocks(payload, true);
	put_le32(buf.bytes.get(), hx::conf::backup_magic);
	put_le32(buf.bytes.get() + 4, crc32c_(0, payload));
	if (!write_file(conf_path, {buf.bytes.get(), buf.size})) {
		printf("fail to write %s\n", conf_path);
		return -1;
	}
	return 0;
}

int conf_to_db(const char *db_path, const char *conf_path)
{
	std::optional<off_t> size = file_size(conf_path);
	if (!size || !header_valid(conf_path, *size))
		return -1;
	Buffer buf = buffer(*size - static_cast<off_t>(backup_header_size));
	if (!buf.bytes)
		return -1;
	if (!read_file(conf_path, {buf.bytes.get(), buf.size})) {
		printf("fail to read %s\n", conf_path);
		return -1;
	}
	return unwrap(db_path, buf) ? 0 : -1;
}

// The upload and the lock go whatever the outcome; a lock found in place
// (another restore running) is removed too.
int sysconf_restore()
{
	int ret = -1;
	hx::UniqueFd lock(open(upfile_lock, O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0644));
	if (lock)
		ret = restore_locked();
	else
		puts("upfile locked");
	lock.reset();
	unlink(upfile);
	unlink(upfile_lock);
	return ret;
}

const char *_revalidate_uploadSysconf(json_object *value, json_object *, void *)
{
	return hx::ipc::run_checked<sysconf_restore>(value);
}
