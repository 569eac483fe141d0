#include "core/startup.h"

int main(int argc, char *argv[])
{
	return hxsrvd_main(argc, argv);
}
