/* What hxctl and sysconf share (see toolutil.h). */
#include <err.h>
#include <errno.h>
#include <getopt.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <json-c/json.h>

#include "toolutil.h"

int
usage_error(const char *format, ...)
{
	va_list args;

	va_start(args, format);
	vwarnx(format, args);
	va_end(args);
	fprintf(stderr, "Try '%s --help' for more information.\n", program_invocation_short_name);
	return EX_USAGE;
}

int
option_error(int c, char **argv)
{
	if (c == ':')
		return usage_error("option '%s' needs an argument", argv[optind - 1]);
	if (optopt != 0)
		return usage_error("unknown option '-%c'", optopt);
	return usage_error("unknown option '%s'", argv[optind - 1]);
}

void *
must_(void *p)
{
	if (p == NULL)
		errx(tool_out_of_memory_status, "out of memory");
	return p;
}

int
json_text(const char *text, struct json_object **value)
{
	struct json_tokener *tok = must(json_tokener_new());
	enum json_tokener_error err;

	json_tokener_set_flags(tok, JSON_TOKENER_STRICT);
	/* The length includes the NUL, which ends a trailing number. */
	*value = json_tokener_parse_ex(tok, text, (int)strlen(text) + 1);
	err = json_tokener_get_error(tok);
	json_tokener_free(tok);
	if (err == json_tokener_success && json_object_is_type(*value, json_type_double) &&
	    !isfinite(json_object_get_double(*value)))
		err = json_tokener_error_parse_unexpected;
	if (err != json_tokener_success) {
		json_object_put(*value);
		*value = NULL;
		return 0;
	}
	return 1;
}
