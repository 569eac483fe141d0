/* wifi/wpacli.c (Part 5.1) against a scripted libwpacli: the wpa_ctrl_*
 * functions below replace the library, and the monitor connection's
 * descriptor is one end of a datagram socket pair, so event messages go
 * through the real bufferevent reader.  The process runs in a mount
 * namespace of its own with a tmpfs on /var/run, where the tests make
 * "/var/run/wpa_supplicant" (skipped when that cannot be set up). */
#include <errno.h>
#include <event.h>
#include <fcntl.h>
#include <sched.h>
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <cmocka.h>
}

#include "core/server.h"
#include "core/util.h"
#include "tests/unit/testutil.h"
#include "wifi/wifi.h"
#include "wpa_ctrl.h"

#define CTRL_DIR "/var/run/wpa_supplicant"

struct wpa_ctrl {
	int fds[2];
};

/* The script and the record of the fake library. */
static struct {
	int opens, closes, attaches, detaches, requests;
	int open_fail_at;		/* 1-based open that fails, 0: none */
	int attach_result;
	int request_result;
	const char *request_event;	/* handed to msg_cb during a request */
	char last_path[4200];
	char last_cmd[256];
	size_t last_reply_size;
	struct wpa_ctrl *monitor;
} fake;

struct wpa_ctrl *
wpa_ctrl_open(const char *ctrl_path)
{
	struct wpa_ctrl *ctrl;

	fake.opens++;
	strlcpy(fake.last_path, ctrl_path, sizeof(fake.last_path));
	if (fake.opens == fake.open_fail_at)
		return NULL;
	ctrl = (struct wpa_ctrl *)malloc(sizeof(*ctrl));
	if (ctrl == NULL || socketpair(AF_UNIX, SOCK_DGRAM, 0, ctrl->fds) != 0)
		abort();
	fake.monitor = ctrl;
	return ctrl;
}

void
wpa_ctrl_close(struct wpa_ctrl *ctrl)
{
	if (ctrl == NULL)
		return;
	fake.closes++;
	close(ctrl->fds[0]);
	close(ctrl->fds[1]);
	if (fake.monitor == ctrl)
		fake.monitor = NULL;
	free(ctrl);
}

int
wpa_ctrl_request(struct wpa_ctrl *ctrl, const char *cmd, size_t cmd_len,
		 char *reply, size_t *reply_len, void (*msg_cb)(char *msg, size_t len))
{
	char event[256];

	(void)ctrl;
	(void)reply;
	fake.requests++;
	snprintf(fake.last_cmd, sizeof(fake.last_cmd), "%.*s", (int)cmd_len, cmd);
	fake.last_reply_size = *reply_len;
	if (fake.request_event != NULL && msg_cb != NULL) {
		strlcpy(event, fake.request_event, sizeof(event));
		msg_cb(event, strlen(event));
	}
	*reply_len = 0;
	return fake.request_result;
}

int
wpa_ctrl_attach(struct wpa_ctrl *ctrl)
{
	(void)ctrl;
	fake.attaches++;
	return fake.attach_result;
}

int
wpa_ctrl_detach(struct wpa_ctrl *ctrl)
{
	(void)ctrl;
	fake.detaches++;
	return 0;
}

int
wpa_ctrl_get_fd(struct wpa_ctrl *ctrl)
{
	return ctrl->fds[0];
}

/* ---- handlers ---- */

#define CALLS_MAX 8

static struct {
	int count;
	char who[CALLS_MAX][8];
	char event[CALLS_MAX][64];
	char arg[CALLS_MAX][64];	/* "(null)" for a null argument */
	void *slot[CALLS_MAX];
} calls;

static void
record(const char *who, const char *event, const char *arg, void *slot)
{
	int i = calls.count++;

	assert_true(i < CALLS_MAX);
	strlcpy(calls.who[i], who, sizeof(calls.who[i]));
	strlcpy(calls.event[i], event, sizeof(calls.event[i]));
	strlcpy(calls.arg[i], arg == NULL ? "(null)" : arg, sizeof(calls.arg[i]));
	calls.slot[i] = slot;
}

static int
h_ctrl(const char *event, const char *arg, struct wpa_cli_eh *slot)
{
	record("ctrl", event, arg, slot);
	return 0;
}

static int
h_tdls(const char *event, const char *arg, struct wpa_cli_eh *slot)
{
	record("tdls", event, arg, slot);
	return 0;
}

static int
h_any(const char *event, const char *arg, struct wpa_cli_eh *slot)
{
	record("any", event, arg, slot);
	return 0;
}

/* ---- helpers ---- */

static struct event_base *base;
static struct tu_capture cap;

static void
out_begin(void)
{
	tu_capture_begin(&cap, stdout);
}

/* Ends the capture and checks the captured text. */
static void
out_is(const char *expected)
{
	char *text = tu_capture_end(&cap);

	assert_string_equal(text, expected);
	free(text);
}

static void
make_socket_file(const char *name)
{
	char path[256];
	int fd;

	snprintf(path, sizeof(path), "%s/%s", CTRL_DIR, name);
	fd = open(path, O_CREAT | O_WRONLY, 0600);
	assert_true(fd >= 0);
	close(fd);
}

/* Sends one event datagram to the monitor connection and runs the loop once. */
static void
event_in(const char *msg)
{
	assert_non_null(fake.monitor);
	assert_int_equal(send(fake.monitor->fds[1], msg, strlen(msg), 0), (ssize_t)strlen(msg));
	assert_int_equal(event_base_loop(base, EVLOOP_ONCE), 0);
}

static int
setup(void **state)
{
	(void)state;
	memset(&fake, 0, sizeof(fake));
	memset(&calls, 0, sizeof(calls));
	if (mkdir(CTRL_DIR, 0755) != 0 && errno != EEXIST)
		return -1;
	make_socket_file("mlan0");
	return 0;
}

static int
teardown(void **state)
{
	(void)state;
	wpa_cli_deinit();
	unlink(CTRL_DIR "/mlan0");
	rmdir(CTRL_DIR);
	return 0;
}

static void
attach_quietly(void)
{
	out_begin();
	assert_int_equal(wpa_cli_init(), 0);
	out_is("WPACli: Selected interface 'mlan0'\n"
	       "WPACli: Initialize interface for wpa_supplicant successful\n");
}

/* ---- initialisation ---- */

static void
test_init_attaches(void **state)
{
	(void)state;
	attach_quietly();
	assert_int_equal(fake.opens, 2);
	assert_int_equal(fake.attaches, 1);
	assert_string_equal(fake.last_path, "/var/run/wpa_supplicant/mlan0");
}

static void
test_second_init_does_not_reopen(void **state)
{
	(void)state;
	attach_quietly();
	out_begin();
	assert_int_equal(wpa_cli_init(), 0);
	out_is("");
	assert_int_equal(fake.opens, 2);
	assert_int_equal(fake.attaches, 1);
}

static void
test_init_without_socket_fails(void **state)
{
	(void)state;
	unlink(CTRL_DIR "/mlan0");
	out_begin();
	assert_int_equal(wpa_cli_init(), -1);
	out_is("WPACli: Failed to open connection to wpa_supplicant on "
	       "/var/run/wpa_supplicant\n");
	assert_int_equal(fake.opens, 0);
}

static void
test_init_without_directory_fails(void **state)
{
	(void)state;
	unlink(CTRL_DIR "/mlan0");
	rmdir(CTRL_DIR);
	out_begin();
	assert_int_equal(wpa_cli_init(), -1);
	out_is("WPACli: Failed to open connection to wpa_supplicant on "
	       "/var/run/wpa_supplicant\n");
}

static void
test_init_command_open_fails(void **state)
{
	(void)state;
	fake.open_fail_at = 1;
	out_begin();
	assert_int_equal(wpa_cli_init(), -1);
	out_is("WPACli: Selected interface 'mlan0'\n"
	       "WPACli: Failed to open connection to wpa_supplicant on "
	       "/var/run/wpa_supplicant/mlan0\n");
	assert_int_equal(fake.opens, 1);
}

static void
test_init_monitor_open_fails_silently(void **state)
{
	(void)state;
	fake.open_fail_at = 2;
	out_begin();
	assert_int_equal(wpa_cli_init(), -1);
	out_is("WPACli: Selected interface 'mlan0'\n");
	assert_int_equal(fake.closes, 1);
}

static void
test_init_attach_fails(void **state)
{
	(void)state;
	fake.attach_result = -1;
	out_begin();
	assert_int_equal(wpa_cli_init(), -1);
	out_is("WPACli: Selected interface 'mlan0'\n"
	       "WPACli: Failed to attach to wpa_supplicant\n");
	assert_int_equal(fake.closes, 2);
	/* not attached: a later init tries again */
	fake.attach_result = 0;
	attach_quietly();
}

/* ---- registration ---- */

static void
test_register_without_client_does_nothing(void **state)
{
	(void)state;
	out_begin();
	assert_int_equal(wpa_cli_eh_register("CTRL", h_ctrl), 0);
	out_is("");
	attach_quietly();
	event_in("<3>CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed");
	assert_int_equal(calls.count, 0);
}

static void
test_register_null_handler_takes_no_slot(void **state)
{
	(void)state;
	attach_quietly();
	for (int i = 0; i < 4; i++)
		assert_int_equal(wpa_cli_eh_register("CTRL", NULL), 0);
	assert_int_equal(wpa_cli_eh_register("CTRL", h_ctrl), 0);
}

static void
test_fifth_registration_fails(void **state)
{
	(void)state;
	attach_quietly();
	assert_int_equal(wpa_cli_eh_register("CTRL", h_ctrl), 0);
	assert_int_equal(wpa_cli_eh_register("TDLS", h_tdls), 0);
	assert_int_equal(wpa_cli_eh_register("CTRL-EVENT-CONNECTED", h_any), 0);
	assert_int_equal(wpa_cli_eh_register("", h_any), 0);
	out_begin();
	assert_int_equal(wpa_cli_eh_register("CTRL", h_ctrl), -1);
	out_is("WPACli: Exceed Maximum EH count\n");
	/* the first four still work, visited in order without stopping */
	out_begin();
	event_in("<3>CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed");
	out_is("WPACli: Event from WPA [<3>CTRL-EVENT-CONNECTED - Connection to "
	       "00:11:22:33:44:55 completed]\n");
	assert_int_equal(calls.count, 3);
	assert_string_equal(calls.who[0], "ctrl");
	assert_string_equal(calls.who[1], "any");
	assert_string_equal(calls.who[2], "any");
	assert_ptr_not_equal(calls.slot[1], calls.slot[2]);
}

/* ---- dispatch ---- */

static void
attach_ctrl_tdls(void)
{
	attach_quietly();
	assert_int_equal(wpa_cli_eh_register("CTRL", h_ctrl), 0);
	assert_int_equal(wpa_cli_eh_register("TDLS", h_tdls), 0);
}

static void
test_connected_goes_to_ctrl_with_null_argument(void **state)
{
	(void)state;
	attach_ctrl_tdls();
	event_in("<3>CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed [id=0 id_str=]");
	assert_int_equal(calls.count, 1);
	assert_string_equal(calls.who[0], "ctrl");
	assert_string_equal(calls.event[0], "CTRL-EVENT-CONNECTED ");
	assert_string_equal(calls.arg[0], "(null)");
	assert_non_null(calls.slot[0]);
	assert_ptr_equal(((struct wpa_cli_eh *)calls.slot[0])->handler, h_ctrl);
}

static void
test_each_ctrl_event_name(void **state)
{
	static const char *const names[] = {
		"CTRL-EVENT-DISCONNECTED ", "CTRL-EVENT-ASSOC-REJECT ",
		"CTRL-EVENT-SSID-TEMP-DISABLED ", "CTRL-EVENT-SSID-NO-MATCH ",
	};
	char msg[128];

	(void)state;
	attach_ctrl_tdls();
	for (size_t i = 0; i < 4; i++) {
		snprintf(msg, sizeof(msg), "<4>%sx=1", names[i]);
		event_in(msg);
		assert_int_equal(calls.count, (int)i + 1);
		assert_string_equal(calls.who[i], "ctrl");
		assert_string_equal(calls.event[i], names[i]);
	}
}

static void
test_tdls_disc_resp_argument_is_last_17_characters(void **state)
{
	(void)state;
	attach_ctrl_tdls();
	event_in("<3>TDLS-DISC-RESP peer=aa:bb:cc:dd:ee:ff");
	event_in("TDLS-LINK-UP 11:22:33:44:55:66");
	event_in("<3>TDLS-LINK-DOWN 11:22:33:44:55:66 reason=x");
	assert_int_equal(calls.count, 3);
	assert_string_equal(calls.who[0], "tdls");
	assert_string_equal(calls.event[0], "TDLS-DISC-RESP ");
	assert_string_equal(calls.arg[0], "aa:bb:cc:dd:ee:ff");
	assert_string_equal(calls.event[1], "TDLS-LINK-UP ");
	assert_string_equal(calls.arg[1], "(null)");
	assert_string_equal(calls.event[2], "TDLS-LINK-DOWN ");
	assert_string_equal(calls.who[2], "tdls");
}

static void
test_short_tdls_disc_resp_argument_is_whole_message(void **state)
{
	(void)state;
	attach_ctrl_tdls();
	wpa_cli_event_dispatch("TDLS-DISC-RESP ");
	assert_int_equal(calls.count, 1);
	assert_string_equal(calls.arg[0], "TDLS-DISC-RESP ");
}

static void
test_unknown_event_printed_not_dispatched(void **state)
{
	(void)state;
	attach_ctrl_tdls();
	out_begin();
	event_in("<3>CTRL-EVENT-SCAN-RESULTS ");
	event_in("<3>CTRL-EVENT-CONNECTED");	/* no trailing blank */
	out_is("WPACli: Event from WPA [<3>CTRL-EVENT-SCAN-RESULTS ]\n"
	       "WPACli: Event from WPA [<3>CTRL-EVENT-CONNECTED]\n");
	assert_int_equal(calls.count, 0);
}

static void
test_bss_removed_dropped_silently(void **state)
{
	(void)state;
	attach_ctrl_tdls();
	out_begin();
	event_in("<3>CTRL-EVENT-BSS-REMOVED 1 00:11:22:33:44:55");
	out_is("");
	assert_int_equal(calls.count, 0);
}

static void
test_message_without_closing_bracket_used_whole(void **state)
{
	(void)state;
	attach_ctrl_tdls();
	out_begin();
	event_in("<3CTRL-EVENT-CONNECTED x");
	wpa_cli_event_dispatch("CTRL-EVENT-CONNECTED x");
	out_is("WPACli: Event from WPA [<3CTRL-EVENT-CONNECTED x]\n"
	       "WPACli: Event from WPA [CTRL-EVENT-CONNECTED x]\n");
	assert_int_equal(calls.count, 1);
}

/* ---- requests ---- */

static void
test_send_while_detached_is_dropped(void **state)
{
	(void)state;
	out_begin();
	assert_int_equal(wpa_cli_send("RECONFIGURE", NULL, NULL), -1);
	out_is("WPACli: Not connected to wpa_supplicant, command RECONFIGURE dropped\n");
	assert_int_equal(fake.requests, 0);
}

static void
test_send_success_consumes_reply(void **state)
{
	char reply[64] = "untouched";
	size_t len = 5;

	(void)state;
	attach_quietly();
	out_begin();
	assert_int_equal(wpa_cli_send("SELECT_NETWORK 0", reply, &len), 0);
	out_is("");
	assert_string_equal(fake.last_cmd, "SELECT_NETWORK 0");
	assert_int_equal(fake.last_reply_size, 0);
	assert_int_equal(len, 5);
	assert_string_equal(reply, "untouched");
}

static void
test_send_timeout(void **state)
{
	(void)state;
	attach_quietly();
	fake.request_result = -2;
	out_begin();
	assert_int_equal(wpa_cli_send("REMOVE_NETWORK 0", NULL, NULL), -1);
	out_is("WPACli: 'REMOVE_NETWORK 0' command timed out.\n"
	       "WPACli: wpa_cli_send: Failed, -2\n");
}

static void
test_send_failure(void **state)
{
	(void)state;
	attach_quietly();
	fake.request_result = -1;
	out_begin();
	assert_int_equal(wpa_cli_send("RECONFIGURE", NULL, NULL), -1);
	out_is("WPACli: 'RECONFIGURE' command failed.\n"
	       "WPACli: wpa_cli_send: Failed, -1\n");
}

static void
test_send_prints_unsolicited_without_dispatch(void **state)
{
	(void)state;
	attach_ctrl_tdls();
	fake.request_event = "<3>CTRL-EVENT-CONNECTED - x";
	out_begin();
	assert_int_equal(wpa_cli_send("RECONFIGURE", NULL, NULL), 0);
	out_is("WPACli: Show event message from WPA: [<3>CTRL-EVENT-CONNECTED - x]\n");
	assert_int_equal(calls.count, 0);
}

/* ---- shutdown ---- */

static void
test_deinit_detaches_and_clears_handlers(void **state)
{
	(void)state;
	attach_ctrl_tdls();
	wpa_cli_deinit();
	assert_int_equal(fake.detaches, 1);
	assert_int_equal(fake.closes, 2);
	out_begin();
	assert_int_equal(wpa_cli_send("RECONFIGURE", NULL, NULL), -1);
	out_is("WPACli: Not connected to wpa_supplicant, command RECONFIGURE dropped\n");
	attach_quietly();
	assert_int_equal(fake.opens, 4);
	event_in("<3>CTRL-EVENT-CONNECTED - x");
	assert_int_equal(calls.count, 0);
	wpa_cli_deinit();
	wpa_cli_deinit();	/* safe in any state */
}

/* A private mount namespace with a tmpfs on /var/run: nothing of the
 * host's /var/run is seen or touched. */
static int
private_var_run(void)
{
	if (unshare(CLONE_NEWNS) != 0 ||
	    mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0 ||
	    mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755") != 0)
		return -1;
	return 0;
}

#define T(f) cmocka_unit_test_setup_teardown(f, setup, teardown)

int
main(void)
{
	const struct CMUnitTest tests[] = {
		T(test_init_attaches),
		T(test_second_init_does_not_reopen),
		T(test_init_without_socket_fails),
		T(test_init_without_directory_fails),
		T(test_init_command_open_fails),
		T(test_init_monitor_open_fails_silently),
		T(test_init_attach_fails),
		T(test_register_without_client_does_nothing),
		T(test_register_null_handler_takes_no_slot),
		T(test_fifth_registration_fails),
		T(test_connected_goes_to_ctrl_with_null_argument),
		T(test_each_ctrl_event_name),
		T(test_tdls_disc_resp_argument_is_last_17_characters),
		T(test_short_tdls_disc_resp_argument_is_whole_message),
		T(test_unknown_event_printed_not_dispatched),
		T(test_bss_removed_dropped_silently),
		T(test_message_without_closing_bracket_used_whole),
		T(test_send_while_detached_is_dropped),
		T(test_send_success_consumes_reply),
		T(test_send_timeout),
		T(test_send_failure),
		T(test_send_prints_unsolicited_without_dispatch),
		T(test_deinit_detaches_and_clears_handlers),
	};
	int ret;

	if (private_var_run() != 0) {
		printf("test_wpacli: skipped, no private mount namespace (%s)\n",
		       strerror(errno));
		return 0;
	}
	base = event_init();
	if (base == NULL)
		return 1;
	set_event_base(base);
	ret = cmocka_run_group_tests(tests, NULL, NULL);
	event_base_free(base);
	return ret;
}
