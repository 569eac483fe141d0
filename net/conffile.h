// Lines of the generated configuration files (dnsmasq, its hosts file,
// miniupnpd) that carry a setting: a fixed text, the setting's text, a
// fixed text.
#ifndef HX_NET_CONFFILE_H
#define HX_NET_CONFFILE_H

#include <stdio.h>

#include <span>

#include "conf/store.h"

namespace hx::net {

struct Setting {
	conf::Store store;
	const char *before;
	const char *key;
	const char *after;
	bool skip_empty = false;	// an empty text writes nothing
};

// Writes the settings in order.  false at the first one that is missing,
// does not parse or holds a newline (conf::file_text): the lines before it
// stay in the file.
inline bool put_settings(FILE *file, std::span<const Setting> settings)
{
	for (const Setting &s : settings) {
		std::optional<std::string> text = conf::file_text(s.store, s.key);
		if (!text)
			return false;
		if (!s.skip_empty || !text->empty())
			fprintf(file, "%s%s%s", s.before, text->c_str(), s.after);
	}
	return true;
}

}  // namespace hx::net

#endif
