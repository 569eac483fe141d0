// The Wi-Fi tools' output: the line reader, the "iwlist" scan listing, the
// station's link from "iwconfig" and the access point's channel.
#include <stdio.h>

#include <string>
#include <vector>

#include "core/owned.h"
#include "tests/unit/support.h"
#include "wifi/lines.h"
#include "wifi/scan.h"

namespace {

using hx::wifi::ScanCell;
using hx::wifi::ScanList;

std::string fixture(const char *name)
{
	std::string path(__FILE__);
	path = path.substr(0, path.rfind('/')) + "/../fixtures/" + name;
	hx::FilePtr file = hx::open_file(path.c_str(), "r");
	EXPECT_TRUE(file) << path;
	std::string text;
	for (int c; file && (c = fgetc(file.get())) != EOF;)
		text += static_cast<char>(c);
	return text;
}

// What the reader hands on of text: whole lines, or every piece.
std::vector<std::string> read(const std::string &text, bool pieces = false)
{
	std::vector<std::string> out;
	hx::FilePtr stream(fmemopen(const_cast<char *>(text.data()), text.size(), "r"));
	auto keep = [&](std::string_view line) { out.emplace_back(line); };
	if (pieces)
		hx::wifi::each_piece(stream.get(), keep);
	else
		hx::wifi::each_line(stream.get(), keep);
	return out;
}

ScanList scan(const std::string &text)
{
	ScanList list;
	for (const std::string &line : read(text))
		hx::wifi::parse_scan_line(line, list);
	return list;
}

TEST(Lines, WholeLinesOnly)
{
	std::string fits(254, 'a'), longer(255, 'b');
	EXPECT_EQ(read("a\nb\n"), (std::vector<std::string>{"a\n", "b\n"}));
	EXPECT_EQ(read("a\nno newline"), (std::vector<std::string>{"a\n"}));
	EXPECT_EQ(read(fits + "\n" + longer + "\nc\n"), (std::vector<std::string>{fits + "\n", "c\n"}));
	EXPECT_EQ(read(longer + "\n", true), (std::vector<std::string>{longer, "\n"}));
	// a NUL ends the line's text there: an unfinished line, taken with the next
	EXPECT_EQ(read(std::string("x\0y\nz\nw\n", 8)), (std::vector<std::string>{"w\n"}));
}

struct Cell {
	const char *bssid, *ssid;
	int channel, signal;
	const char *security;
};

void expect_cells(const ScanList &list, const std::vector<Cell> &cells)
{
	ASSERT_EQ(list.cells.size(), cells.size());
	for (size_t i = 0; i < cells.size(); i++) {
		const ScanCell &got = list.cells[i];
		EXPECT_EQ(got.bssid, cells[i].bssid) << i;
		EXPECT_EQ(got.ssid, cells[i].ssid) << i;
		EXPECT_EQ(got.channel, cells[i].channel) << i;
		EXPECT_EQ(got.signal, cells[i].signal) << i;
		EXPECT_EQ(got.security(), cells[i].security) << i;
	}
}

TEST(Scan, DriverListing)
{
	ScanList list = scan(fixture("iwlist_mlan0_scan.txt"));
	expect_cells(list, {{"00:24:01:D3:A0:BE", "HomeNet", 6, -52, "WPA2-PSK"},
			    {"9C:D6:43:11:22:33", "Cafe Guest", 1, -78, "NONE"},
			    {"00:1A:2B:3C:4D:5E", "Office", 11, -61, "WPA/WPA2-PSK"},
			    {"00:90:4C:AA:BB:CC", "", 6, -45, "WPA2-PSK"},
			    {"00:0F:66:01:02:03", "OldRouter", 9, -84, "WEP"},
			    {"00:24:01:D3:A0:C0", "HomeNet", 149, -40, "WPA2-PSK"},
			    {"34:12:98:76:54:32", "", 3, -88, "WPA2-EAP"},
			    {"02:11:22:33:44:55", "Corp \"Lab\"", 6, -70, "WPA2-EAP"}});
	EXPECT_FALSE(list.full);
	EXPECT_TRUE(scan(fixture("iwlist_mlan0_empty.txt")).cells.empty());
	EXPECT_TRUE(scan("ESSID:\"x\"\nmlan0  Interface doesn't support scanning.\n").cells.empty());
}

TEST(Scan, BoundedTo64Cells)
{
	std::string text;
	for (int i = 0; i < 69; i++)
		text += "  Cell " + std::to_string(i + 1) + " - Address: 00:00:00:00:00:00\n"
			"    ESSID:\"net" + std::to_string(i) + "\"\n";
	ScanList list = scan(text);
	ASSERT_EQ(list.cells.size(), hx::wifi::scan_cell_max);
	EXPECT_TRUE(list.full);
	// the lines of a dropped cell never reach the last one kept
	EXPECT_EQ(list.cells.back().ssid, "net63");
}

struct Lines {
	const char *what;
	const char *lines;	// after "Cell 01 - Address: <address>"
	Cell cell;
	const char *address = "00:11:22:33:44:55";
};

class ScanCellLines : public ::testing::TestWithParam<Lines> {};

TEST_P(ScanCellLines, FillTheCell)
{
	const Lines &c = GetParam();
	expect_cells(scan(std::string("Cell 01 - Address: ") + c.address + "\n" + c.lines), {c.cell});
}

INSTANTIATE_TEST_SUITE_P(
	Fields, ScanCellLines,
	::testing::Values(
		Lines{"frequency", "Frequency:2.437 GHz\n", {"00:11:22:33:44:55", "", 6, 0, "NONE"}},
		Lines{"channel before frequency", "Channel:11\nFrequency:2.437 GHz\n",
		      {"00:11:22:33:44:55", "", 11, 0, "NONE"}},
		Lines{"longer address", "", {"00:11:22:33:44:55", "", 0, 0, "NONE"}, "00:11:22:33:44:55:66"},
		Lines{"not an address", "", {"", "", 0, 0, "NONE"}, "00:11:22:33:44:5G"},
		Lines{"SSID bounded to 32 bytes", "ESSID:\"0123456789012345678901234567890123456789\"\n",
		      {"00:11:22:33:44:55", "01234567890123456789012345678901", 0, 0, "NONE"}},
		Lines{"unterminated SSID", "ESSID:\"open\n", {"00:11:22:33:44:55", "", 0, 0, "NONE"}},
		Lines{"numbers clamped",
		      "Quality=1/1  Signal level=-99999999999999999999 dBm\nChannel:99999999999999999999\n",
		      {"00:11:22:33:44:55", "", 99999, -99999, "NONE"}},
		Lines{"WPA", "Encryption key:on\n  IE: WPA Version 1\n",
		      {"00:11:22:33:44:55", "", 0, 0, "WPA-PSK"}},
		Lines{"WPA and WPA2 with 802.1x",
		      "IE: WPA Version 1\nIE: IEEE 802.11i/WPA2 Version 1\nAuthentication Suites (1) : 802.1x\n",
		      {"00:11:22:33:44:55", "", 0, 0, "WPA/WPA2-EAP"}},
		Lines{"802.1x without WPA", "Encryption key:on\nAuthentication Suites (1) : 802.1x\n",
		      {"00:11:22:33:44:55", "", 0, 0, "WEP"}}));

TEST(Scan, FrequencyChannel)
{
	const std::pair<const char *, int> cases[] = {
		{"2.412 GHz", 1}, {"2.472 GHz", 13}, {"2.484 GHz", 14}, {"5.18 GHz", 36},
		{"5.825 GHz", 165}, {"2.5 GHz", 0}, {"0", 0}, {"junk", 0}, {"1e300", 0},
	};
	for (const auto &[field, channel] : cases)
		EXPECT_EQ(hx::wifi::freq_channel(field), channel) << field;
}

hx::wifi::Link link_of(const char *name)
{
	hx::wifi::Link link;
	for (const std::string &line : read(fixture(name)))
		hx::wifi::parse_link_line(line, link);
	return link;
}

TEST(Link, ConnectedAndIdle)
{
	hx::wifi::Link up = link_of("iwconfig_mlan0_connected.txt");
	EXPECT_EQ(up.ssid, "HomeNet");
	EXPECT_EQ(up.bssid, "00:24:01:D3:A0:BE");
	EXPECT_EQ(up.channel, 6);
	EXPECT_EQ(up.signal, -52);
	EXPECT_EQ(up.bitrate, "72 Mb/s");
	hx::wifi::Link idle = link_of("iwconfig_mlan0_idle.txt");
	EXPECT_EQ(idle.ssid, "");
	EXPECT_EQ(idle.bssid, "");
	hx::wifi::Link odd;
	hx::wifi::parse_link_line("Bit Rate:1234567890123456789 Mb/s", odd);
	EXPECT_EQ(odd.bitrate, "123456789012345 Mb/s");
}

TEST(SysConfig, Channel)
{
	const std::pair<const char *, int> cases[] = {
		{"Channel = 11\n", 11}, {"  Channel = 149", 149}, {"Channel Select Mode = Manual\n", 0},
		{"Channel = 0\n", 0}, {"Channel = 200\n", 0}, {"Band = 2.4GHz\n", 0},
		{"Channel = 99999999999999999999\n", 0},
	};
	for (const auto &[line, channel] : cases)
		EXPECT_EQ(hx::wifi::sys_config_channel(line), channel) << line;
}

}  // namespace
