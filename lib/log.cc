// Every module reports here. The first message decides where messages go, so a daemon that never calls log_open
// still reaches its user: on the terminal if there is one, else in syslog.
//
// The kernel log takes one record a write. A daemon may close any descriptor, so /dev/kmsg is opened and closed
// for each message.

#include "log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/invariant.h"
#include "time.h"

static constexpr char KMSG_PATH[] = "/dev/kmsg";
static constexpr char STATUS_PATH[] = "/proc/self/status";
static constexpr char NAME_FIELD[] = "Name:";

// Negative until the first message decides.
static int32_t destination_mask = -1;
static int32_t syslog_facility = -1;

static const char *identity;
static bool initialised;
static char name_line[64]; // holds the identity if it comes from STATUS_PATH
static const char *application_name;

void log_open(int mask, int facility, const char *ident)
{
	destination_mask = mask;
	syslog_facility = facility;
	identity = ident;
}

static const char *name_in(FILE *status)
{
	while (fgets(name_line, sizeof name_line, status)) {
		if (strncmp(name_line, NAME_FIELD, strlen(NAME_FIELD)) != 0)
			continue;
		char *rest = nullptr;
		strtok_r(name_line, "\t\n", &rest);
		return strtok_r(nullptr, "\t\n", &rest);
	}
	return nullptr;
}

static const char *process_name()
{
	FILE *status = fopen(STATUS_PATH, "re");
	if (!status)
		return nullptr;
	const char *name = name_in(status);
	fclose(status);
	return name;
}

static void initialise()
{
	if (destination_mask < 0)
		destination_mask = isatty(STDOUT_FILENO) ? LOG_DEST_STDIO : LOG_DEST_SYSLOG;
	if (syslog_facility < 0)
		syslog_facility = isatty(STDOUT_FILENO) ? LOG_USER : LOG_DAEMON;
	// The standard streams alone get no name: compatibility, bare lines
	if (!identity && destination_mask != LOG_DEST_STDIO)
		identity = process_name();
	if (destination_mask & LOG_DEST_SYSLOG)
		openlog(identity, 0, syslog_facility);
	initialised = true;
}

// %m means the errno of _log's caller, at each destination.
__attribute__((format(printf, 3, 0))) static void write_line(
	FILE *file, int error, const char *format, va_list arguments)
{
	if (identity)
		fprintf(file, "%s: ", identity);
	errno = error;
	vfprintf(file, format, arguments);
}

__attribute__((format(printf, 3, 0))) static void write_kmsg(
	int priority, int error, const char *format, va_list arguments)
{
	FILE *kmsg = fopen(KMSG_PATH, "we");
	if (!kmsg)
		return;
	fprintf(kmsg, "<%u>", static_cast<unsigned>(priority));
	write_line(kmsg, error, format, arguments);
	fclose(kmsg);
}

static FILE *standard_stream(int priority)
{
	// LOG_DEBUG is no report: compatibility, debug on stderr
	return priority == LOG_NOTICE || priority == LOG_INFO ? stdout : stderr;
}

void _log(int priority, const char *format, ...)
{
	int error = errno;
	if (!initialised)
		initialise();

	va_list arguments;
	if (destination_mask & LOG_DEST_KMSG) {
		va_start(arguments, format);
		write_kmsg(priority, error, format, arguments);
		va_end(arguments);
	}
	if (destination_mask & LOG_DEST_STDIO) {
		va_start(arguments, format);
		write_line(standard_stream(priority), error, format, arguments);
		va_end(arguments);
	}
	if (destination_mask & LOG_DEST_SYSLOG) {
		va_start(arguments, format);
		errno = error;
		vsyslog(priority, format, arguments);
		va_end(arguments);
	}
	errno = error;
}

void set_app_name(const char *name)
{
	application_name = name;
}

static const char *fatal_name()
{
	return application_name ? application_name : program_invocation_short_name;
}

void assert_failure(const char *location, const char *function, const char *expression)
{
	_log(LOG_ERR, "%s: %s: assertion %s failed in %s()\n", fatal_name(), location, expression, function);
	abort();
}

void invariant_failure(const char *file, int line)
{
	_log(LOG_ERR, "%s: %s:%d: invariant broken\n", fatal_name(), file, line);
	abort();
}

// Not through _log: that opens files, which takes memory.
void out_of_memory(void)
{
	fprintf(stderr, "%s: out of memory\n", fatal_name());
	abort();
}

// A negative interval makes the sum wrap: compatibility, negative interval
static bool period_has_ended(const ratelimit_state *state, uint64_t now_ms)
{
	return state->begin + static_cast<uint64_t>(int64_t{state->interval}) < now_ms;
}

static void begin_period(ratelimit_state *state, const char *name)
{
	if (state->missed != 0) {
		_log(LOG_WARNING, "%s: %d callbacks suppressed\n", name, state->missed);
		state->missed = 0;
	}
	state->begin = time_now_msec();
	state->printed = 0;
}

int ___ratelimit(struct ratelimit_state *state, const char *name)
{
	if (state->interval == 0)
		return 1;
	if (state->begin == 0)
		state->begin = time_now_msec();
	if (period_has_ended(state, time_now_msec()))
		begin_period(state, name);
	if (state->burst != 0 && state->printed < state->burst) {
		state->printed++;
		return 1;
	}
	if (state->missed < INT32_MAX)
		state->missed++;
	return 0;
}

static void *checked(void *block)
{
	if (!block)
		out_of_memory();
	return block;
}

void *xmalloc(size_t size)
{
	return checked(malloc(size ? size : 1));
}

void *xcalloc(size_t count, size_t size)
{
	if (count == 0 || size == 0)
		return checked(malloc(1));
	return checked(calloc(count, size));
}

void *xzalloc(size_t size)
{
	return xcalloc(1, size);
}

void *xrealloc(void *block, size_t size)
{
	return checked(realloc(block, size ? size : 1));
}

char *xstrdup(const char *text)
{
	return strdup(text);
}

char *xstrndup(const char *text, size_t length_max)
{
	return strndup(text, length_max);
}
