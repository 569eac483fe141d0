// Assertions that name the daemon's module ("hxsrvd", "ipcimpl") rather
// than the source file, with the expression text as written.
#ifndef HX_CORE_HXASSERT_H
#define HX_CORE_HXASSERT_H

#include <assert.h>

#define hx_assert_in(module, function, expr) \
	((expr) ? (void)0 : __assert_fail(#expr, module, __LINE__, function))
#define hx_assert(module, expr) hx_assert_in(module, __func__, expr)

#endif
