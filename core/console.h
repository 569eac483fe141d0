// Diagnostics of the daemon core and the store layer: one message per open
// of "/dev/console" (mode "w"), dropped when it cannot be opened.
#ifndef HX_CORE_CONSOLE_H
#define HX_CORE_CONSOLE_H

void gw_console(const char *format, ...) __attribute__((format(printf, 1, 2)));

#endif
