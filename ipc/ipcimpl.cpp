/* Part 2.1: request protocol and method dispatch (module "ipcimpl"). */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "conf/confdb.h"
#include "ipc/handlers.h"
#include "ipc/ipc.h"
#include "ipc/registry.h"
#include "net/lanwan.h"

static const struct ipc_method methods[] = {
	{ "pref-get", 1, prefGet },
	{ "pref-set", 1, prefSet },
	{ "revalidate", 1, revalidate },
};

int
ipc_init(void)
{
	infos_init();
	revalidates_init();
	/* The station reports to the WAN that drives it. */
	hx::net::lanwan_init();
	return confIndexInit() == 0 ? 0 : -1;
}

static void
reply_noop(struct json_object *reply, void *client)
{
	(void)reply;
	(void)client;
}

static const struct ipc_method *
method_find(struct json_object *name, const struct ipc_method *table, size_t n)
{
	const char *text = json_object_get_string(name);
	size_t i;

	for (i = 0; text != NULL && i < n; i++)
		if (strcmp(text, table[i].name) == 0)
			return &table[i];
	return NULL;
}

/* The shape checks in their order; each later one overrides the earlier. */
static const char *
request_check(struct json_object *request, const struct ipc_method **method,
	      const struct ipc_method *table, size_t n)
{
	struct json_object *arguments = json_object_object_get(request, "arguments");
	struct json_object *name = json_object_object_get(request, "method");
	const char *error = NULL;

	if (arguments == NULL)
		error = "no arguments";
	if (!json_object_is_type(arguments, json_type_object)) {
		puts("invalid arguments.");
		error = "invalid arguments";
	}
	if (name == NULL)
		return "no method name";
	*method = method_find(name, table, n);
	if (*method == NULL)
		return "method not found";
	return error;
}

static void
reply_add_tag(struct json_object *reply, struct json_object *request)
{
	struct json_object *tag;

	if (json_object_object_get_ex(request, "tag", &tag))
		json_object_object_add(reply, "tag", json_object_get(tag));
}

/* Builds {"arguments": {}} and returns the reply; NULL when out of memory. */
static struct json_object *
reply_new(struct json_object **reply_arguments)
{
	struct json_object *reply = json_object_new_object();

	*reply_arguments = json_object_new_object();
	if (reply == NULL || *reply_arguments == NULL) {
		puts("json_object_new_object failed.");
		json_object_put(reply);
		json_object_put(*reply_arguments);
		return NULL;
	}
	json_object_object_add(reply, "arguments", *reply_arguments);
	return reply;
}

static void
reply_send(struct json_object *reply, struct json_object *request, const char *result,
	   ipc_reply_func reply_func, void *client)
{
	json_object_object_add(reply, "result", json_object_new_string(result));
	reply_add_tag(reply, request);
	reply_func(reply, client);
	json_object_put(reply);
}

static void
request_deferred(struct json_object *request, const struct ipc_method *method,
		 ipc_reply_func reply_func, void *client)
{
	ipc_deferred_reply *ctx = (ipc_deferred_reply *)calloc(1, sizeof(*ctx));
	struct json_object *arguments = json_object_object_get(request, "arguments");

	if (ctx == NULL) {
		puts("json_object_new_object failed.");
		return;
	}
	ctx->reply = json_object_new_object();
	ctx->reply_arguments = json_object_new_object();
	if (ctx->reply == NULL || ctx->reply_arguments == NULL) {
		puts("json_object_new_object failed.");
		json_object_put(ctx->reply);
		json_object_put(ctx->reply_arguments);
		free(ctx);
		return;
	}
	reply_add_tag(ctx->reply, request);
	json_object_object_add(ctx->reply, "arguments", ctx->reply_arguments);
	ctx->reply_func = reply_func;
	ctx->client = client;
	method->handler(arguments, ctx->reply_arguments, ctx);
}

void
ipc_request_exec_table(struct json_object *request, ipc_reply_func reply_func,
		       void *client, const struct ipc_method *table, size_t n)
{
	const struct ipc_method *method = NULL;
	struct json_object *reply, *reply_arguments;
	const char *error;

	if (request == NULL || !json_object_is_type(request, json_type_object)) {
		printf("%s: invalid parameters.\n", "request_exec");
		return;
	}
	if (reply_func == NULL)
		reply_func = reply_noop;
	error = request_check(request, &method, table, n);
	if (error == NULL && !method->immediate) {
		request_deferred(request, method, reply_func, client);
		return;
	}
	reply = reply_new(&reply_arguments);
	if (reply == NULL)
		return;
	if (error == NULL)
		error = method->handler(json_object_object_get(request, "arguments"),
					reply_arguments, NULL);
	reply_send(reply, request, error != NULL ? error : "success", reply_func, client);
}

ssize_t
ipc_request_exec_json(const char *text, ssize_t length, ipc_reply_func reply_func,
		      void *client)
{
	enum json_tokener_error error;
	struct json_object *request;

	if (length < 0)
		length = (ssize_t)strlen(text);
	request = json_tokener_parse_verbose(text, &error);
	if (error != json_tokener_success) {
		errno = EINVAL;
		return -1;
	}
	ipc_request_exec_table(request, reply_func, client, methods,
			       sizeof(methods) / sizeof(methods[0]));
	json_object_put(request);
	return length;
}
