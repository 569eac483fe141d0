#include "core/json.h"

namespace hx::json {

json_tokener *loop_tokener()
{
	static Owned<json_tokener, json_tokener_free> tok(json_tokener_new());
	if (!tok)
		tok.reset(json_tokener_new());
	if (tok)
		json_tokener_reset(tok.get());
	return tok.get();
}

}  // namespace hx::json
