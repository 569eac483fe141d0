#include "tools/toolutil.h"

#include <err.h>
#include <getopt.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace hx::tools {

int usage_error(const char *format, ...)
{
	va_list args;
	va_start(args, format);
	vwarnx(format, args);
	va_end(args);
	fprintf(stderr, "Try '%s --help' for more information.\n", program_invocation_short_name);
	return usage_status;
}

int option_error(int c, char **argv)
{
	if (c == ':')
		return usage_error("option '%s' needs an argument", argv[optind - 1]);
	if (optopt != 0)
		return usage_error("unknown option '-%c'", optopt);
	return usage_error("unknown option '%s'", argv[optind - 1]);
}

void out_of_memory()
{
	errx(3, "out of memory");
}

void add(json_object *object, const char *key, json::Ptr value)
{
	// json-c refuses only when it cannot allocate.
	if (json_object_object_add(object, key, value.get()) != 0)
		out_of_memory();
	(void)value.release();
}

std::optional<json::Ptr> json_text(const char *text)
{
	Owned<json_tokener, json_tokener_free> tok(must(json_tokener_new()));
	json_tokener_set_flags(tok.get(), JSON_TOKENER_STRICT);
	// The length includes the NUL, which ends a trailing number.
	json::Ptr value(json_tokener_parse_ex(tok.get(), text, static_cast<int>(strlen(text)) + 1));
	if (json_tokener_get_error(tok.get()) != json_tokener_success)
		return std::nullopt;
	if (json::is(value.get(), json_type_double) && !isfinite(json_object_get_double(value.get())))
		return std::nullopt;
	return value;
}

}  // namespace hx::tools
