// The backup file: its checksum, cipher and the two conversions, on files
// in a temporary directory.  The restore works on the device's fixed paths
// and is tested through the daemon.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "conf/backup.h"
#include "core/owned.h"
#include "tests/unit/support.h"

namespace {

using namespace std::string_literals;
using hx::test::stdout_of;

// DES-ECB of 0123456789ABCDEF under the built-in key 5A13C708E4913D6B, from
// `openssl enc -des-ecb -nopad -K 5A13C708E4913D6B -provider legacy`.
const std::string plain = "\x01\x23\x45\x67\x89\xAB\xCD\xEF"s;
const std::string cipher = "\x16\x81\x9F\xAD\x12\x6F\x57\x55"s;
const std::string magic = "\x1F\x22\xE7\x88"s;
const std::string reserved(24, '\0');
// plain + AA BB exported: crc32c_(0, cipher + AA BB) = 0xB4571227.
const std::string good = magic + "\x27\x12\x57\xB4"s + reserved + cipher + "\xAA\xBB"s;

uint32_t crc(std::string_view data, uint32_t init = 0)
{
	return crc32c_(init, {reinterpret_cast<const unsigned char *>(data.data()), data.size()});
}

std::string le32(uint32_t v)
{
	return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
		static_cast<char>(v >> 24)};
}

TEST(Crc32c, BackupParametersAndUsualOnes)
{
	// initial value 0, no final inversion: computed bit by bit elsewhere
	EXPECT_EQ(crc("123456789"), 0x58E3FA20u);
	EXPECT_EQ(crc(""), 0u);
	EXPECT_EQ(crc("", 0x12345678u), 0x12345678u);
	EXPECT_EQ(crc("56789", crc("1234")), 0x58E3FA20u);
	// the usual CRC-32C needs init and final xor 0xFFFFFFFF
	EXPECT_EQ(crc("123456789", 0xFFFFFFFFu) ^ 0xFFFFFFFFu, 0xE3069283u);
}

class Backup : public ::testing::Test {
protected:
	std::string path(const char *name) { return dir.file(name); }
	std::string put(const char *name, const std::string &bytes) { return dir.write(name, bytes); }
	std::optional<std::string> get(const std::string &file)
	{
		hx::FilePtr f = hx::open_file(file.c_str(), "rb");
		if (!f)
			return std::nullopt;
		std::string data(1 << 16, '\0');
		data.resize(fread(data.data(), 1, data.size(), f.get()));
		return data;
	}
	// What f(a, b) printed; its result must be ret.
	std::string out(int (*f)(const char *, const char *), const std::string &a,
			const std::string &b, int ret)
	{
		return stdout_of([&] { EXPECT_EQ(f(a.c_str(), b.c_str()), ret); });
	}
	hx::test::TempDir dir;
};

TEST_F(Backup, ExportKnownAnswerAndTruncation)
{
	std::string db = put("db", plain + "\xAA\xBB"s), bak = put("bak", std::string(100, 'x'));
	EXPECT_EQ(out(db_to_conf, db, bak, 0), "");
	EXPECT_EQ(get(bak), good);
	EXPECT_EQ(out(conf_to_db, path("back"), bak, 0), "");
	EXPECT_EQ(get(path("back")), plain + "\xAA\xBB"s);
}

TEST_F(Backup, EmptyStoreGives32BytesThatImportRefuses)
{
	std::string db = put("db", ""), bak = path("bak");
	EXPECT_EQ(out(db_to_conf, db, bak, 0), "");
	EXPECT_EQ(get(bak), magic + le32(0) + reserved);
	EXPECT_EQ(out(conf_to_db, path("out"), bak, -1), "invalid configure file, size error\n");
	EXPECT_FALSE(get(path("out")));
}

class RoundTrip : public Backup, public ::testing::WithParamInterface<size_t> {};

TEST_P(RoundTrip, KeepsTheTailPlainAndGivesTheStoreBack)
{
	size_t n = GetParam();
	std::string data;
	for (size_t i = 0; i < n; i++)
		data += static_cast<char>(i * 37 + 5);
	std::string db = put("db", data), bak = path("bak");
	std::string back = put("back", "old contents that are longer than the payload, to be cut");
	EXPECT_EQ(out(db_to_conf, db, bak, 0), "");
	std::string file = *get(bak);
	ASSERT_EQ(file.size(), n + 32);
	EXPECT_EQ(file.substr(32 + n / 8 * 8), data.substr(n / 8 * 8));
	if (n >= 8) {
		EXPECT_NE(file.substr(32, 8), data.substr(0, 8));
	}
	EXPECT_EQ(file.substr(4, 4), le32(crc(file.substr(32))));
	EXPECT_EQ(out(conf_to_db, back, bak, 0), "");
	EXPECT_EQ(get(back), data);
}

INSTANTIATE_TEST_SUITE_P(Lengths, RoundTrip, ::testing::Values(1, 7, 8, 13, 16, 63, 4099));

struct Altered {
	size_t at;
	char value;
	const char *out;	// "" when accepted
};

class Import : public Backup, public ::testing::WithParamInterface<Altered> {};

TEST_P(Import, AlteredByte)
{
	std::string file = good;
	file[GetParam().at] = GetParam().value;
	std::string db = path("db");
	bool accepted = GetParam().out[0] == '\0';
	EXPECT_EQ(out(conf_to_db, db, put("bak", file), accepted ? 0 : -1), GetParam().out);
	EXPECT_EQ(get(db), accepted ? std::optional(plain + "\xAA\xBB"s) : std::nullopt);
}

const char crc_error[] = "invalid configure file, crc error\n";
const char magic_error[] = "magic number mismatch\ninvalid configure file, magic number error\n";

INSTANTIATE_TEST_SUITE_P(
	Bytes, Import,
	::testing::Values(Altered{32, '\x17', crc_error}, Altered{35, '\xAC', crc_error},
			  Altered{39, '\x54', crc_error}, Altered{40, '\0', crc_error},
			  Altered{41, '\0', crc_error}, Altered{4, '\x26', crc_error},
			  Altered{0, '\x1E', magic_error}, Altered{3, '\x08', magic_error},
			  Altered{8, '\xFF', ""}, Altered{20, '\xFF', ""}, Altered{31, '\xFF', ""}));

TEST_F(Backup, ImportRefusesBigEndianMagicAndUsualCrc)
{
	std::string db = path("db");
	std::string swapped = "\x88\xE7\x22\x1F"s + good.substr(4);
	EXPECT_EQ(out(conf_to_db, db, put("bak", swapped), -1), magic_error);
	std::string payload = good.substr(32);
	std::string usual = magic + le32(crc(payload, 0xFFFFFFFFu) ^ 0xFFFFFFFFu) + reserved + payload;
	EXPECT_EQ(out(conf_to_db, db, put("bak", usual), -1), crc_error);
	EXPECT_FALSE(get(db));
}

TEST_F(Backup, ImportSizes)
{
	std::string db = path("db");
	EXPECT_EQ(out(conf_to_db, db, put("bak", magic), -1), "invalid configure file, size error\n");
	EXPECT_EQ(out(conf_to_db, db, put("bak", ""), -1), "invalid configure file, size error\n");
	// 33 bytes: one payload byte in plain
	EXPECT_EQ(out(conf_to_db, db, put("bak", magic + le32(crc("Q")) + reserved + "Q"), 0), "");
	EXPECT_EQ(get(db), "Q");
}

TEST_F(Backup, InputThatCannotBeStatedOpenedOrRead)
{
	std::string none = path("none"), o = path("out");
	std::string missing = "stat " + none + " fail\nfailed to get file size for " + none + "\n";
	EXPECT_EQ(out(db_to_conf, none, o, -1), missing);
	EXPECT_EQ(out(conf_to_db, o, none, -1), missing);

	// a socket: stat works, open does not
	std::string sock = path("sock");
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	ASSERT_LT(sock.size(), sizeof(addr.sun_path));
	sock.copy(addr.sun_path, sock.size());
	hx::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
	ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
	EXPECT_EQ(out(db_to_conf, sock, o, -1),
		  "open file " + sock + " for read fail\nfail to read " + sock + "\n");

	// a directory: stat gives a size, the read fails
	std::string d = path("d");
	ASSERT_EQ(mkdir(d.c_str(), 0755), 0);
	EXPECT_EQ(out(db_to_conf, d, o, -1), "fread fail\nfail to read " + d + "\n");
	EXPECT_EQ(out(conf_to_db, o, d, -1),
		  "fread fail\nfail to read file header\ninvalid configure file, magic number error\n");
	rmdir(d.c_str());
	EXPECT_FALSE(get(o));
}

TEST_F(Backup, OutputThatCannotBeOpenedOrWritten)
{
	std::string db = put("db", "12345678"), bak = put("bak", good);
	std::string nowhere = path("no-dir/file");
	std::string refused = "open file " + nowhere + " for write fail\nfail to write " + nowhere + "\n";
	EXPECT_EQ(out(db_to_conf, db, nowhere, -1), refused);
	EXPECT_EQ(out(conf_to_db, nowhere, bak, -1), refused);
	// /dev/full takes the open and refuses the bytes at the flush
	EXPECT_EQ(out(db_to_conf, db, "/dev/full", -1), "fwrite fail\nfail to write /dev/full\n");
	EXPECT_EQ(out(conf_to_db, "/dev/full", bak, -1), "fwrite fail\nfail to write /dev/full\n");
}

}  // namespace
