#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "core/console.h"
#include "tests/unit/console_capture.h"

static char captured[65536];

void
gw_console(const char *format, ...)
{
	size_t used = strlen(captured);
	va_list args;

	va_start(args, format);
	vsnprintf(captured + used, sizeof(captured) - used, format, args);
	va_end(args);
}

const char *
console_captured(void)
{
	return captured;
}

void
console_reset(void)
{
	captured[0] = '\0';
}
