#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <memory>
#include <new>

#include "conf/confdb.h"
#include "ipc/handlers.h"
#include "ipc/ipc.h"
#include "ipc/registry.h"
#include "net/lanwan.h"

namespace {

using hx::json::Ptr;

constexpr ipc_method methods[] = {
	{"pref-get", 1, prefGet},
	{"pref-set", 1, prefSet},
	{"revalidate", 1, revalidate},
};

void reply_noop(json_object *, void *) {}

// The shape checks in their order, each later one overriding the earlier;
// *method is the row when the name is found.
const char *request_check(json_object *request, std::span<const ipc_method> table,
			  const ipc_method **method)
{
	json_object *arguments = hx::json::member(request, "arguments");
	json_object *name = hx::json::member(request, "method");
	const char *error = arguments == nullptr ? "no arguments" : nullptr;
	if (!hx::json::is(arguments, json_type_object)) {
		puts("invalid arguments.");
		error = "invalid arguments";
	}
	if (name == nullptr)
		return "no method name";
	for (const ipc_method &row : table)
		if (strcmp(hx::json::text(name), row.name) == 0) {
			*method = &row;
			return error;
		}
	return "method not found";
}

void add_tag(json_object *reply, json_object *request)
{
	json_object *tag;
	if (json_object_object_get_ex(request, "tag", &tag))
		json_object_object_add_ex(reply, "tag", json_object_get(tag), JSON_C_OBJECT_KEY_IS_CONSTANT);
}

// The reply with its empty "arguments" (after the tag when with_tag); empty
// when an object cannot be made.
Ptr reply_new(json_object *request, bool with_tag, json_object **reply_arguments)
{
	Ptr reply(json_object_new_object()), arguments(json_object_new_object());
	if (!reply || !arguments) {
		puts("json_object_new_object failed.");
		return nullptr;
	}
	if (with_tag)
		add_tag(reply.get(), request);
	*reply_arguments = arguments.get();
	hx::json::add_lasting(reply.get(), "arguments", std::move(arguments));
	return reply;
}

// The handler owns the context, and answers through it when it is done.
void request_deferred(json_object *request, const ipc_method &method, ipc_reply_func reply_func,
		      void *client)
{
	auto context = std::make_unique<ipc_deferred_reply>();
	context->reply = reply_new(request, true, &context->reply_arguments);
	if (!context->reply)
		return;
	context->reply_func = reply_func;
	context->client = client;
	json_object *arguments = context->reply_arguments;
	method.handler(hx::json::member(request, "arguments"), arguments, context.release());
}

void request_exec(json_object *request, ipc_reply_func reply_func, void *client,
		  std::span<const ipc_method> table)
{
	if (!hx::json::is(request, json_type_object)) {
		printf("%s: invalid parameters.\n", "request_exec");
		return;
	}
	if (reply_func == nullptr)
		reply_func = reply_noop;
	const ipc_method *method = nullptr;
	const char *error = request_check(request, table, &method);
	if (error == nullptr && method->immediate == 0)
		return request_deferred(request, *method, reply_func, client);
	json_object *arguments = nullptr;
	Ptr reply = reply_new(request, false, &arguments);
	if (!reply)
		return;
	if (error == nullptr)
		error = method->handler(hx::json::member(request, "arguments"), arguments, nullptr);
	hx::json::add_lasting(reply.get(), "result",
			      Ptr(json_object_new_string(error != nullptr ? error : "success")));
	add_tag(reply.get(), request);
	reply_func(reply.get(), client);
}

}  // namespace

int ipc_init()
{
	infos_init();
	revalidates_init();
	/* The station reports to the WAN that drives it. */
	hx::net::lanwan_init();
	return confIndexInit() == 0 ? 0 : -1;
}

// The one place where running out of memory is caught: the request is
// dropped, its objects released, and the daemon goes on.
void ipc_request_exec_table(json_object *request, ipc_reply_func reply_func, void *client,
			    std::span<const ipc_method> table)
{
	try {
		request_exec(request, reply_func, client, table);
	} catch (const std::bad_alloc &) {
		puts("out of memory");
	}
}

ssize_t ipc_request_exec_json(const char *text, ssize_t length, ipc_reply_func reply_func,
			      void *client)
{
	if (length < 0)
		length = static_cast<ssize_t>(strlen(text));
	// json_tokener_parse_verbose, with the loop's tokener.
	json_tokener *tok = hx::json::loop_tokener();
	Ptr request(tok != nullptr ? json_tokener_parse_ex(tok, text, -1) : nullptr);
	if (tok == nullptr || json_tokener_get_error(tok) != json_tokener_success) {
		errno = EINVAL;
		return -1;
	}
	ipc_request_exec_table(request.get(), reply_func, client, methods);
	return length;
}
