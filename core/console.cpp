#include <stdarg.h>
#include <stdio.h>

#include "core/console.h"

void
gw_console(const char *format, ...)
{
	FILE *console = fopen("/dev/console", "w");
	va_list args;

	if (console == NULL)
		return;
	va_start(args, format);
	vfprintf(console, format, args);
	va_end(args);
	fclose(console);
}
