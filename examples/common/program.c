#define _POSIX_C_SOURCE 200809L

#include "examples/common/program.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

void open_standard_descriptors(void)
{
	int fd;
	do {
		fd = open("/dev/null", O_RDWR);
		if (fd < 0)
			fd = open("/", O_RDONLY);
	} while (fd >= 0 && fd < STDERR_FILENO);
	if (fd > STDERR_FILENO)
		close(fd);
}

int printed(const char *program, const char *what, bool well)
{
	if (well && fflush(stdout) == 0 && !ferror(stdout))
		return EXIT_SUCCESS;
	fprintf(stderr, "%s: cannot print %s\n", program, what);
	return EXIT_FAILURE;
}

int print_help(const char *program, const char *usage)
{
	return printed(program, "the help", fputs(usage, stdout) != EOF);
}

int print_version(const char *program)
{
	return printed(program, "the version", printf("%s " APBASE_VERSION "\n", program) >= 0);
}
