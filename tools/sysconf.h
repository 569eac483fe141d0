// The store tool's entry: the daemon's binary runs it when started as
// "sysconf" (see core/main.cpp).
#ifndef HX_TOOLS_SYSCONF_H
#define HX_TOOLS_SYSCONF_H

int sysconf_main(int argc, char **argv);

#endif
