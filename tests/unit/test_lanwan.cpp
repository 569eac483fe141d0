/* net/lanwan.c: ctrl_interface with a flag other than 0 or 1, which no
 * caller in the daemon passes (so the integration tests cannot reach it). */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

extern "C" {
#include <cmocka.h>
}

#include "net/net.h"

/* The flag 2 runs the empty shell command: nothing runs, the result is 0.
 * Flags 0 and 1 would run the host's /sbin/ifconfig, so they are tested in
 * the sandbox only. */
static void
test_ctrl_interface_other_flag_runs_nothing(void **state)
{
	(void)state;
	assert_int_equal(ctrl_interface("hx-none0", 2), 0);
	assert_int_equal(ctrl_interface("hx-none0", -1), 0);
}

int
main(void)
{
	const struct CMUnitTest tests[] = {
		cmocka_unit_test(test_ctrl_interface_other_flag_runs_nothing),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}
