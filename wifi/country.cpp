/* Part 5.3: the regulatory channel count of a country, from the Marvell
 * country table "/etc/config/80211d_domain.conf". */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/util.h"
#include "wifi/wifi.h"

#define TOKEN_SIZE 64

static int
next_token(FILE *fp, char token[TOKEN_SIZE])
{
	return fscanf(fp, "%63s", token) == 1;
}

/* Step 1: 1 when a token equals country; domain holds the token that
 * followed the last "COUNTRY:" before it. */
static int
find_country(FILE *fp, const char *country, char domain[TOKEN_SIZE])
{
	char token[TOKEN_SIZE];
	int after_country = 0;

	domain[0] = '\0';
	while (next_token(fp, token)) {
		if (after_country)
			strlcpy(domain, token, TOKEN_SIZE);
		after_country = strcmp(token, "COUNTRY:") == 0;
		if (strcmp(token, country) == 0)
			return 1;
	}
	return 0;
}

/* Step 2: 1 after a "DOMAIN:" token directly followed by domain. */
static int
find_domain(FILE *fp, const char *domain)
{
	char token[TOKEN_SIZE];
	int after_domain = 0;

	while (next_token(fp, token)) {
		if (after_domain && strcmp(token, domain) == 0)
			return 1;
		after_domain = strcmp(token, "DOMAIN:") == 0;
	}
	return 0;
}

/* Steps 3 and 4: the count of the domain's last entry, or -1 for an entry
 * of four fields.  A lone "," only ends its entry. */
static int
collect(FILE *fp)
{
	char token[TOKEN_SIZE];
	int count = 0, field = 0, ends;

	while (next_token(fp, token) && strcmp(token, "DOMAIN:") != 0) {
		ends = strchr(token, ',') != NULL;
		token[strcspn(token, ", ")] = '\0';
		if (token[0] != '\0') {
			if (field == 3)
				return -1;
			if (field == 1)
				count = gw_atoi(token);
			field++;
		}
		if (ends)
			field = 0;
	}
	return count;
}

int
wl_countryChanCount(const char *path, const char *country)
{
	char domain[TOKEN_SIZE];
	FILE *fp = fopen(path, "r");
	int count = 0;

	if (fp == NULL) {
		puts("File: 80211d_domain.conf opening Error");
		return 0;
	}
	if (!find_country(fp, country, domain)) {
		printf("No match found for Country = %s in conf. \n", country);
		fclose(fp);
		return 0;
	}
	printf("Match success for Country = %s in conf. \n", country);
	if (find_domain(fp, domain))
		count = collect(fp);
	fclose(fp);
	if (count < 0) {
		puts("ERR: Incorrect 80211d_domain.conf file");
		return 0;
	}
	printf("no_of_chan = %d \n", count);
	return count;
}
