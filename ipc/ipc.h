/* Part 2.1: request protocol and method dispatch. */
#ifndef HX_IPC_IPC_H
#define HX_IPC_IPC_H

#include <sys/types.h>

struct json_object;

/* Sends one reply object to one client (supplied by the transport). */
typedef void (*ipc_reply_func)(struct json_object *reply, void *client);

typedef struct ipc_deferred_reply {
	struct json_object *reply;
	struct json_object *reply_arguments;
	ipc_reply_func reply_func;
	void *client;
} ipc_deferred_reply;

/* Method handlers, revalidate targets and status items share one shape:
 * returns NULL for success or a constant error text. */
typedef const char *(*ipc_handler_func)(struct json_object *arguments,
					struct json_object *reply_arguments,
					void *deferred);

/* A row of the method table: name, reply mode (non-zero immediate), handler. */
struct ipc_method {
	const char *name;
	unsigned int immediate;
	ipc_handler_func handler;
};

/* Loads both handler indexes and the key index; -1 when the key index fails. */
int ipc_init(void);

/* Parses and executes one request from the zero-terminated text; returns
 * length (or strlen(text) when length < 0), or -1 with errno EINVAL when
 * the text is not JSON. */
ssize_t ipc_request_exec_json(const char *text, ssize_t length,
			      ipc_reply_func reply_func, void *client);

/* request_exec over a given method table (the daemon's is static; tests use
 * their own to reach the deferred mode). */
void ipc_request_exec_table(struct json_object *request, ipc_reply_func reply_func,
			    void *client, const struct ipc_method *methods, size_t n);

#endif
