#define _POSIX_C_SOURCE 200809L

#include "examples/common/program.h"

#include <errno.h>
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

int usage_error(const char *program, const char *before, const char *word, const char *after)
{
	fprintf(stderr, "%s: %s '%s'%s\n", program, before, word, after);
	return EXIT_USAGE;
}

int usage_error_see_help(const char *program, const char *before, const char *word)
{
	fprintf(stderr, "%s: %s '%s', see %s --help\n", program, before, word, program);
	return EXIT_USAGE;
}

int64_t parse_number(const char *text, uint32_t max)
{
	int64_t value = 0;
	const char *digit = text;

	for (; *digit >= '0' && *digit <= '9' && value <= max; digit++)
		value = value * 10 + (*digit - '0');
	return digit != text && *digit == '\0' && value <= max ? value : -EINVAL;
}
