// The regulatory channel count of a country, from the country table
// "/etc/config/80211d_domain.conf".
#include <ctype.h>
#include <stdio.h>

#include "core/owned.h"
#include "core/util.h"
#include "wifi/ap.h"

namespace hx::wifi {
namespace {

// The next of the table's whitespace-separated tokens, at most 63
// characters (a longer word is read as several); a token ends at a NUL
// byte, as the C text it is compared as.
std::optional<std::string_view> next_token(std::string_view &rest)
{
	auto blank = [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; };
	size_t start = 0;
	while (start < rest.size() && blank(rest[start]))
		start++;
	if (start == rest.size())
		return std::nullopt;
	size_t end = start;
	while (end < rest.size() && end - start < 63 && !blank(rest[end]))
		end++;
	std::string_view token = rest.substr(start, end - start);
	rest.remove_prefix(end);
	return token.substr(0, token.find('\0'));
}

// The domain of country: the token after the last "COUNTRY:" before the
// country's own token (that token is compared too).
std::optional<std::string_view> find_country(std::string_view &tokens, std::string_view country)
{
	std::string_view domain;
	bool after_tag = false;
	while (std::optional<std::string_view> token = next_token(tokens)) {
		if (after_tag)
			domain = *token;
		after_tag = *token == "COUNTRY:";
		if (*token == country)
			return domain;
	}
	return std::nullopt;
}

// Moves past a "DOMAIN:" token directly followed by domain.
bool find_domain(std::string_view &tokens, std::string_view domain)
{
	bool after_tag = false;
	while (std::optional<std::string_view> token = next_token(tokens)) {
		if (after_tag && *token == domain)
			return true;
		after_tag = *token == "DOMAIN:";
	}
	return false;
}

// The second field of the section's last entry, up to the next "DOMAIN:";
// nullopt for an entry of four fields.  A comma ends an entry, and only the
// text before it counts (a lone "," only ends the entry).
std::optional<int> last_entry_count(std::string_view &tokens)
{
	int count = 0, field = 0;
	while (std::optional<std::string_view> token = next_token(tokens)) {
		if (*token == "DOMAIN:")
			break;
		std::string_view head = token->substr(0, token->find(','));
		if (!head.empty()) {
			if (field == 3)
				return std::nullopt;
			if (field == 1)
				count = gw_atoi(std::string(head).c_str());
			field++;
		}
		if (head.size() != token->size())
			field = 0;
	}
	return count;
}

std::optional<std::string> read_file(const char *path)
{
	FilePtr file = open_file(path, "r");
	if (!file)
		return std::nullopt;
	std::string text;
	char block[4096];
	while (size_t n = fread(block, 1, sizeof(block), file.get()))
		text.append(block, n);
	return text;
}

}  // namespace

CountryEntry find_country_channels(std::string_view table, std::string_view country)
{
	std::string_view tokens = table;
	std::optional<std::string_view> domain = find_country(tokens, country);
	if (!domain)
		return {};
	return {true, find_domain(tokens, *domain) ? last_entry_count(tokens) : 0};
}

int country_channel_count(const char *path, const std::string &country)
{
	std::optional<std::string> table = read_file(path);
	if (!table) {
		puts("File: 80211d_domain.conf opening Error");
		return 0;
	}
	CountryEntry entry = find_country_channels(*table, country.c_str());
	if (!entry.listed) {
		printf("No match found for Country = %s in conf. \n", country.c_str());
		return 0;
	}
	printf("Match success for Country = %s in conf. \n", country.c_str());
	if (!entry.count) {
		puts("ERR: Incorrect 80211d_domain.conf file");
		return 0;
	}
	printf("no_of_chan = %d \n", *entry.count);
	return *entry.count;
}

}  // namespace hx::wifi
