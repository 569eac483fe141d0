#include "core/fmt.h"

#include <stdio.h>

namespace hx {

std::string vformat(const char *format, va_list args)
{
	va_list again;
	va_copy(again, args);
	int len = vsnprintf(nullptr, 0, format, again);
	va_end(again);
	std::string out;
	if (len <= 0)
		return out;
	out.resize(static_cast<size_t>(len));
	vsnprintf(out.data(), out.size() + 1, format, args);
	return out;
}

std::string format(const char *format, ...)
{
	va_list args;
	va_start(args, format);
	std::string out = vformat(format, args);
	va_end(args);
	return out;
}

}  // namespace hx
