/* Parts 1.1 and 1.2: event base, connection server. */
#ifndef HX_CORE_SERVER_H
#define HX_CORE_SERVER_H

struct event_base;

extern unsigned int g_exiting;

void set_event_base(struct event_base *base);
struct event_base *get_event_base(void);

int server_init(struct event_base *base);
void server_debug(unsigned int flag);
int getsock(const char *path);
int server_listen(int fd);
void server_quit(void);

#endif
