/* Test double of core/console.cpp: messages are kept in memory. */
#ifndef HX_TEST_CONSOLE_CAPTURE_H
#define HX_TEST_CONSOLE_CAPTURE_H

/* Everything written to the console since the last reset. */
const char *console_captured(void);
void console_reset(void);

#endif
