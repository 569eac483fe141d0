// Formatting into a std::string with printf's checked formats: the one
// formatter of the code base (no iostreams, no <format> on the device).
#ifndef HX_CORE_FMT_H
#define HX_CORE_FMT_H

#include <stdarg.h>

#include <string>

namespace hx {

std::string vformat(const char *format, va_list args) __attribute__((format(printf, 1, 0)));
std::string format(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace hx

#endif
