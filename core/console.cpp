#include "core/console.h"

#include <stdarg.h>

#include "core/owned.h"

void gw_console(const char *format, ...)
{
	hx::FilePtr console = hx::open_file("/dev/console", "w");
	if (!console)
		return;
	va_list args;
	va_start(args, format);
	vfprintf(console.get(), format, args);
	va_end(args);
}
