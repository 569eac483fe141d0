// libevent objects with an owner, and what the daemon's two event readers
// (the client server and the supplicant's event connection) share.
#ifndef HX_CORE_EVENT_H
#define HX_CORE_EVENT_H

#include <event.h>

#include "core/owned.h"

namespace hx {

using EventPtr = Owned<event, event_free>;
using BufferEventPtr = Owned<bufferevent, bufferevent_free>;

// Appends the zero byte that makes a bufferevent's input one C string.
// libevent freezes the input's end outside its own reads, so it is thawed
// for that byte.  False when the byte cannot be added.
inline bool terminate_input(evbuffer *input)
{
	evbuffer_unfreeze(input, 0);
	int added = evbuffer_add(input, "", 1);
	evbuffer_freeze(input, 0);
	return added == 0;
}

}  // namespace hx

#endif
