// The event base of the one event loop, and the connection server on the
// local socket.
#ifndef HX_CORE_SERVER_H
#define HX_CORE_SERVER_H

struct event_base;

// Non-zero once shutdown has begun: no more input is processed.
extern unsigned int g_exiting;

// Set once; a second set is an assertion failure.
void set_event_base(struct event_base *base);
struct event_base *get_event_base();

int server_init(struct event_base *base);
// Non-zero: every connection, request and close is printed on stdout.
void server_debug(unsigned int flag);
// A close-on-exec Unix stream socket bound to path, or -1.
int getsock(const char *path);
// Listens on fd and accepts on the event loop: 0, or -1.
int server_listen(int fd);
// Closes every connection (once).
void server_quit();

#endif
