// Unit tests run on the host, where a handler's command ("kill 1") would hit
// the host: only the empty command, "exit N", "touch $TMPDIR/..." and a popen
// of a missing absolute path run; any other aborts, naming the command.
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

static void refuse(const char *what, const char *command)
{
	fprintf(stderr, "unit test refused to run %s(\"%s\") on the host\n", what, command != nullptr ? command : "(null)");
	abort();
}

int system(const char *command)
{
	const char *tmp = getenv("TMPDIR");
	std::string touch = std::string("touch ") + (tmp != nullptr ? tmp : "") + "/";
	if (command == nullptr || !(*command == '\0' || strcmp(command, "exit 0") == 0 || strcmp(command, "exit 3") == 0 ||
				    (tmp != nullptr && *tmp != '\0' && strncmp(command, touch.c_str(), touch.size()) == 0 &&
				     strpbrk(command + 6, " ;&|`$<>\n") == nullptr)))
		refuse("system", command);
	return reinterpret_cast<int (*)(const char *)>(dlsym(RTLD_NEXT, "system"))(command);
}

FILE *popen(const char *command, const char *type)
{
	std::string program = command != nullptr ? std::string(command, strcspn(command, " ")) : "";
	if (program.empty() || program[0] != '/' || strpbrk(command, ";&|`$<>\n") != nullptr ||
	    access(program.c_str(), F_OK) == 0)
		refuse("popen", command);
	return reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "popen"))(command, type);
}
