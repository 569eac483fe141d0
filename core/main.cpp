// One binary, two programs: the daemon, and the store tool when started as
// "sysconf".  They share the store and backup code and one copy of the C++
// runtime, which the device's flash holds once.
#include <string.h>

#include "core/startup.h"
#include "tools/sysconf.h"

int main(int argc, char *argv[])
{
	const char *slash = argc > 0 ? strrchr(argv[0], '/') : nullptr;
	const char *name = slash != nullptr ? slash + 1 : argc > 0 ? argv[0] : "";
	if (strcmp(name, "sysconf") == 0)
		return sysconf_main(argc, argv);
	return hxsrvd_main(argc, argv);
}
