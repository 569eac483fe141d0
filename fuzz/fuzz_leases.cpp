/* The lines of dnsmasq's lease file through the s_dhcpleases line parser
 * (ipc/info_parse.cpp), read as the item reads them: fgets with 4096 bytes. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <json-c/json.h>

#include "ipc/info_parse.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	struct json_object *array = json_object_new_array(), *parsed;
	FILE *fp = fmemopen((void *)data, size, "r");
	char line[4096];

	if (array == NULL || fp == NULL) {
		json_object_put(array);
		if (fp != NULL)
			fclose(fp);
		return 0;
	}
	while (fgets(line, sizeof(line), fp) != NULL && hx::ipc::lease_line(line, array))
		;
	parsed = json_tokener_parse(json_object_to_json_string(array));
	if (parsed == NULL)
		abort();
	json_object_put(parsed);
	fclose(fp);
	json_object_put(array);
	return 0;
}
