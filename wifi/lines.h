// The output of the Wi-Fi tools, read line by line with the 256-byte line
// buffer the parsers have always been given.
#ifndef HX_WIFI_LINES_H
#define HX_WIFI_LINES_H

#include <stdio.h>
#include <string.h>

#include <string_view>

#include "core/owned.h"

namespace hx::wifi {

// Each piece of stream as one fgets into 256 bytes reads it, newline
// included: a longer line comes in several pieces.
template <typename F>
void each_piece(FILE *stream, F &&fn)
{
	char piece[256];
	while (fgets(piece, sizeof(piece), stream) != nullptr)
		fn(std::string_view(piece, strlen(piece)));
}

// Only the lines that fit the buffer whole: a longer line, and a last line
// without its newline, are left out.
template <typename F>
void each_line(FILE *stream, F &&fn)
{
	bool whole = true;
	each_piece(stream, [&](std::string_view piece) {
		bool ends = piece.ends_with('\n');
		if (whole && ends)
			fn(piece);
		whole = ends;
	});
}

// each_line over the output of command; nothing when it cannot be run.
template <typename F>
void command_lines(const char *command, F &&fn)
{
	if (PipePtr out = open_pipe(command, "re"))
		each_line(out.get(), fn);
}

}  // namespace hx::wifi

#endif
