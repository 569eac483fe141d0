// The request protocol: one JSON request, one of three methods, one reply.
#ifndef HX_IPC_IPC_H
#define HX_IPC_IPC_H

#include <sys/types.h>

#include <span>

#include "core/json.h"

// Sends one reply object to one client (supplied by the transport).
using ipc_reply_func = void (*)(json_object *reply, void *client);

// The context of a deferred reply, handed to the method's handler, which
// owns it from then on: it adds "result" and sends the reply itself.
struct ipc_deferred_reply {
	hx::json::Ptr reply;
	json_object *reply_arguments;
	ipc_reply_func reply_func;
	void *client;
};

// Method handlers, revalidate targets and status items share one shape:
// NULL for success or a constant error text.
using ipc_handler_func = const char *(*)(json_object *arguments, json_object *reply_arguments,
					 void *deferred);

// A row of the method table: name, reply mode (non-zero immediate), handler.
struct ipc_method {
	const char *name;
	unsigned int immediate;
	ipc_handler_func handler;
};

// Loads both handler indexes and the key index; -1 when the key index fails.
int ipc_init();

// Parses and executes one request from the zero-terminated text; returns
// length (or strlen(text) when length < 0), or -1 with errno EINVAL when the
// text is not JSON.
ssize_t ipc_request_exec_json(const char *text, ssize_t length, ipc_reply_func reply_func,
			      void *client);

// Executes one parsed request over a method table (the daemon's is its own;
// tests bring theirs to reach the deferred mode).  A request that runs out of
// memory is dropped here: "out of memory" is printed and nothing is sent.
void ipc_request_exec_table(json_object *request, ipc_reply_func reply_func, void *client,
			    std::span<const ipc_method> methods);

#endif
