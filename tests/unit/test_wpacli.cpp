// The supplicant client against a scripted library: the wpa_ctrl_*
// functions below take the platform library's place, and the monitor
// connection's descriptor is one end of a datagram socket pair, so events go
// through the real event reader.  The program runs in a mount namespace of
// its own with a tmpfs on /var/run, where the tests make the control
// directory (skipped when that cannot be set up).
#include <errno.h>
#include <event.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "core/server.h"
#include "tests/unit/support.h"
#include "wifi/wpacli.h"
#include "wpa_ctrl.h"

struct wpa_ctrl {
	int fds[2];
};

namespace {

constexpr const char *ctrl_dir = "/var/run/wpa_supplicant";
constexpr const char *ctrl_socket = "/var/run/wpa_supplicant/mlan0";

// The script and the record of the library.
struct Fake {
	int opens = 0, closes = 0, attaches = 0, detaches = 0, requests = 0;
	int open_fail_at = 0;	// the 1-based open that fails
	int attach_result = 0;
	int request_result = 0;
	const char *request_event = nullptr;	// handed to msg_cb during a request
	std::string last_path, last_cmd;
	size_t last_reply_size = 0;
	wpa_ctrl *monitor = nullptr;
} fake;

struct Call {
	std::string who, event, arg;	// "(null)" for a null argument
	wpa_cli_eh *slot;
	bool operator==(const Call &) const = default;
};
std::vector<Call> calls;

template <const char *Who>
int record(const char *event, const char *arg, wpa_cli_eh *slot)
{
	calls.push_back({Who, event, arg != nullptr ? arg : "(null)", slot});
	return 0;
}
constexpr char ctrl_name[] = "ctrl", tdls_name[] = "tdls", any_name[] = "any";
constexpr wpa_cli_eh_fn h_ctrl = record<ctrl_name>, h_tdls = record<tdls_name>,
			h_any = record<any_name>;

event_base *base;

}  // namespace

struct wpa_ctrl *wpa_ctrl_open(const char *ctrl_path)
{
	fake.last_path = ctrl_path;
	if (++fake.opens == fake.open_fail_at)
		return nullptr;
	auto *ctrl = new wpa_ctrl;
	if (socketpair(AF_UNIX, SOCK_DGRAM, 0, ctrl->fds) != 0)
		abort();
	return fake.monitor = ctrl;
}

void wpa_ctrl_close(struct wpa_ctrl *ctrl)
{
	fake.closes++;
	close(ctrl->fds[0]);
	close(ctrl->fds[1]);
	if (fake.monitor == ctrl)
		fake.monitor = nullptr;
	delete ctrl;
}

int wpa_ctrl_request(struct wpa_ctrl *, const char *cmd, size_t cmd_len, char *,
		     size_t *reply_len, void (*msg_cb)(char *msg, size_t len))
{
	fake.requests++;
	fake.last_cmd.assign(cmd, cmd_len);
	fake.last_reply_size = *reply_len;
	if (fake.request_event != nullptr && msg_cb != nullptr) {
		std::string event = fake.request_event;
		msg_cb(event.data(), event.size());
	}
	*reply_len = 0;
	return fake.request_result;
}

int wpa_ctrl_attach(struct wpa_ctrl *)
{
	fake.attaches++;
	return fake.attach_result;
}

int wpa_ctrl_detach(struct wpa_ctrl *)
{
	fake.detaches++;
	return 0;
}

int wpa_ctrl_get_fd(struct wpa_ctrl *ctrl)
{
	return ctrl->fds[0];
}

namespace {

const char *const init_out = "WPACli: Selected interface 'mlan0'\n"
			     "WPACli: Initialize interface for wpa_supplicant successful\n";

class Client : public ::testing::Test {
protected:
	// A private mount namespace with a tmpfs on /var/run: nothing of the
	// host's /var/run is seen or touched.
	static void SetUpTestSuite()
	{
		static bool tried;
		if (std::exchange(tried, true))
			return;
		if (unshare(CLONE_NEWNS) == 0 &&
		    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
		    mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755") == 0)
			set_event_base(base = event_init());
	}
	void SetUp() override
	{
		if (base == nullptr)
			GTEST_SKIP() << "no private mount namespace: " << strerror(errno);
		fake = Fake{};
		calls.clear();
		ASSERT_TRUE(mkdir(ctrl_dir, 0755) == 0 || errno == EEXIST);
		int fd = open(ctrl_socket, O_CREAT | O_WRONLY, 0600);
		ASSERT_GE(fd, 0);
		close(fd);
	}
	void TearDown() override
	{
		wpa_cli_deinit();
		unlink(ctrl_socket);
		rmdir(ctrl_dir);
	}
	static void attach(bool handlers = true)
	{
		EXPECT_EQ(hx::test::stdout_of([] { EXPECT_EQ(wpa_cli_init(), 0); }), init_out);
		if (handlers) {
			EXPECT_EQ(wpa_cli_eh_register("CTRL", h_ctrl), 0);
			EXPECT_EQ(wpa_cli_eh_register("TDLS", h_tdls), 0);
		}
	}
	// One datagram to the monitor connection, read by one loop pass; what
	// the client printed.
	static std::string event_in(const std::string &msg)
	{
		return hx::test::stdout_of([&] {
			ASSERT_NE(fake.monitor, nullptr);
			ASSERT_EQ(send(fake.monitor->fds[1], msg.data(), msg.size(), 0),
				  static_cast<ssize_t>(msg.size()));
			ASSERT_EQ(event_base_loop(base, EVLOOP_ONCE), 0);
		});
	}
};

struct InitCase {
	const char *name;
	bool socket, dir;
	int open_fail_at, attach_result;
	const char *out;
	int opens, closes;
};

class Init : public Client, public ::testing::WithParamInterface<InitCase> {};

// A failed initialisation closes what it opened and leaves the client
// detached, so the next one tries again.
TEST_P(Init, FailsClosingWhatItOpened)
{
	const InitCase &c = GetParam();
	if (!c.socket)
		unlink(ctrl_socket);
	if (!c.dir)
		rmdir(ctrl_dir);
	fake.open_fail_at = c.open_fail_at;
	fake.attach_result = c.attach_result;
	EXPECT_EQ(hx::test::stdout_of([] { EXPECT_EQ(wpa_cli_init(), -1); }), c.out);
	EXPECT_EQ(fake.opens, c.opens);
	EXPECT_EQ(fake.closes, c.closes);
	if (!c.dir || !c.socket)
		return;
	fake = Fake{};
	attach(false);
	EXPECT_EQ(fake.last_path, ctrl_socket);
}

INSTANTIATE_TEST_SUITE_P(
	Failures, Init,
	::testing::Values(
		InitCase{"no_socket", false, true, 0, 0,
			 "WPACli: Failed to open connection to wpa_supplicant on /var/run/wpa_supplicant\n", 0, 0},
		InitCase{"no_directory", false, false, 0, 0,
			 "WPACli: Failed to open connection to wpa_supplicant on /var/run/wpa_supplicant\n", 0, 0},
		InitCase{"command_open", true, true, 1, 0,
			 "WPACli: Selected interface 'mlan0'\nWPACli: Failed to open connection to "
			 "wpa_supplicant on /var/run/wpa_supplicant/mlan0\n", 1, 0},
		InitCase{"monitor_open", true, true, 2, 0, "WPACli: Selected interface 'mlan0'\n", 2, 1},
		InitCase{"attach", true, true, 0, -1,
			 "WPACli: Selected interface 'mlan0'\nWPACli: Failed to attach to wpa_supplicant\n", 2, 2}),
	[](const auto &param) { return std::string(param.param.name); });

TEST_F(Client, SecondInitOpensNothing)
{
	attach(false);
	EXPECT_EQ(hx::test::stdout_of([] { EXPECT_EQ(wpa_cli_init(), 0); }), "");
	EXPECT_EQ(fake.opens, 2);
	EXPECT_EQ(fake.attaches, 1);
}

TEST_F(Client, RegistrationNeedsAClientAndTakesFourSlots)
{
	EXPECT_EQ(wpa_cli_eh_register("CTRL", h_ctrl), 0);	// no client: nothing kept
	attach(false);
	EXPECT_EQ(wpa_cli_eh_register("CTRL", nullptr), 0);	// takes no slot
	const std::pair<const char *, wpa_cli_eh_fn> slots[] = {
		{"CTRL", h_ctrl}, {"TDLS", h_tdls}, {"CTRL-EVENT-CONNECTED", h_any}, {"", h_any}};
	for (auto [prefix, handler] : slots)
		EXPECT_EQ(wpa_cli_eh_register(prefix, handler), 0);
	EXPECT_EQ(hx::test::stdout_of([] { EXPECT_EQ(wpa_cli_eh_register("CTRL", h_ctrl), -1); }),
		  "WPACli: Exceed Maximum EH count\n");
	// Every matching slot is called, in order.
	event_in("<3>CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed");
	ASSERT_EQ(calls.size(), 3u);
	EXPECT_EQ(calls[0].who + calls[1].who + calls[2].who, "ctrlanyany");
	EXPECT_NE(calls[1].slot, calls[2].slot);
}

struct DispatchCase {
	const char *msg;
	const char *out;
	std::vector<Call> calls;	// slots not compared
};

class Dispatch : public Client, public ::testing::WithParamInterface<DispatchCase> {};

std::string printed(const std::string &msg)
{
	return "WPACli: Event from WPA [" + msg + "]\n";
}

// Printed as received, unless dropped; handed to every slot whose prefix
// begins the event's name, with the peer's address for a discovery only.
TEST_P(Dispatch, ReachesTheHandlersOfItsPrefix)
{
	const DispatchCase &c = GetParam();
	attach();
	EXPECT_EQ(event_in(c.msg), c.out != nullptr ? std::string(c.out) : printed(c.msg));
	for (Call &call : calls)
		call.slot = nullptr;
	EXPECT_EQ(calls, c.calls);
}

Call ctrl_call(const char *event)
{
	return {"ctrl", event, "(null)", nullptr};
}

Call tdls_call(const char *event, const char *arg = "(null)")
{
	return {"tdls", event, arg, nullptr};
}

INSTANTIATE_TEST_SUITE_P(
	Events, Dispatch,
	::testing::Values(
		DispatchCase{"<3>CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed",
			     nullptr, {ctrl_call("CTRL-EVENT-CONNECTED ")}},
		DispatchCase{"<4>CTRL-EVENT-DISCONNECTED x=1", nullptr, {ctrl_call("CTRL-EVENT-DISCONNECTED ")}},
		DispatchCase{"<4>CTRL-EVENT-ASSOC-REJECT x", nullptr, {ctrl_call("CTRL-EVENT-ASSOC-REJECT ")}},
		DispatchCase{"CTRL-EVENT-SSID-TEMP-DISABLED id=0", nullptr,
			     {ctrl_call("CTRL-EVENT-SSID-TEMP-DISABLED ")}},
		DispatchCase{"<4>CTRL-EVENT-SSID-NO-MATCH ", nullptr, {ctrl_call("CTRL-EVENT-SSID-NO-MATCH ")}},
		DispatchCase{"<3>TDLS-DISC-RESP peer=aa:bb:cc:dd:ee:ff", nullptr,
			     {tdls_call("TDLS-DISC-RESP ", "aa:bb:cc:dd:ee:ff")}},
		DispatchCase{"TDLS-DISC-RESP ", nullptr, {tdls_call("TDLS-DISC-RESP ", "TDLS-DISC-RESP ")}},
		DispatchCase{"TDLS-LINK-UP 11:22:33:44:55:66", nullptr, {tdls_call("TDLS-LINK-UP ")}},
		DispatchCase{"<3>TDLS-LINK-DOWN 11:22:33:44:55:66 r=x", nullptr, {tdls_call("TDLS-LINK-DOWN ")}},
		// a bracket that does not close: the whole text is the message
		DispatchCase{"<3CTRL-EVENT-CONNECTED x", nullptr, {}},
		DispatchCase{"<3>CTRL-EVENT-SCAN-RESULTS ", nullptr, {}},
		DispatchCase{"<3>CTRL-EVENT-CONNECTED", nullptr, {}},
		DispatchCase{"<3>CTRL-EVENT-BSS-REMOVED 1 00:11:22:33:44:55", "", {}},
		DispatchCase{"CTRL-EVENT-BSS-REMOVED 1", "", {}}));

struct SendCase {
	int result;
	const char *event;
	int expected;
	const char *out;
};

class Send : public Client, public ::testing::WithParamInterface<SendCase> {};

// The reply is consumed (size 0) and never printed; events that come
// meanwhile are only shown, not dispatched.
TEST_P(Send, ReportsFailuresAndShowsEvents)
{
	const SendCase &c = GetParam();
	attach();
	fake.request_result = c.result;
	fake.request_event = c.event;
	char reply[16] = "untouched";
	size_t len = 5;
	int result = 0;
	EXPECT_EQ(hx::test::stdout_of([&] { result = wpa_cli_send("REMOVE_NETWORK 0", reply, &len); }),
		  c.out);
	EXPECT_EQ(result, c.expected);
	EXPECT_EQ(fake.last_cmd, "REMOVE_NETWORK 0");
	EXPECT_EQ(fake.last_reply_size, 0u);
	EXPECT_EQ(len, 5u);
	EXPECT_STREQ(reply, "untouched");
	EXPECT_TRUE(calls.empty());
}

INSTANTIATE_TEST_SUITE_P(
	Requests, Send,
	::testing::Values(
		SendCase{0, nullptr, 0, ""},
		SendCase{0, "<3>CTRL-EVENT-CONNECTED - x", 0,
			 "WPACli: Show event message from WPA: [<3>CTRL-EVENT-CONNECTED - x]\n"},
		SendCase{-2, nullptr, -1, "WPACli: 'REMOVE_NETWORK 0' command timed out.\n"
					  "WPACli: wpa_cli_send: Failed, -2\n"},
		SendCase{-1, nullptr, -1, "WPACli: 'REMOVE_NETWORK 0' command failed.\n"
					  "WPACli: wpa_cli_send: Failed, -1\n"}));

// A command while detached is dropped, before and after an attachment.
void expect_dropped()
{
	EXPECT_EQ(hx::test::stdout_of([] { EXPECT_EQ(wpa_cli_send("RECONFIGURE", nullptr, nullptr), -1); }),
		  "WPACli: Not connected to wpa_supplicant, command RECONFIGURE dropped\n");
}

TEST_F(Client, DeinitDetachesAndForgetsTheHandlers)
{
	expect_dropped();
	attach();
	wpa_cli_deinit();
	EXPECT_EQ(fake.detaches, 1);
	EXPECT_EQ(fake.closes, 2);
	expect_dropped();
	EXPECT_EQ(fake.requests, 0);
	attach(false);
	event_in("<3>CTRL-EVENT-CONNECTED - x");
	EXPECT_TRUE(calls.empty());
	wpa_cli_deinit();
	wpa_cli_deinit();
}

}  // namespace
