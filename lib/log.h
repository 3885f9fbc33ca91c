/*
 * log - messages, rate limiting, fatal reports, and allocation that never fails.
 *
 * One thread. _log works without log_open. What cannot be written is dropped silently. Texts (`ident`,
 * `name`) are borrowed for the life of the process. Priorities and facilities are those of <syslog.h>.
 */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Where messages go; any combination. */
#define LOG_DEST_KMSG   1 /* the kernel log, opened for each message, which is one record */
#define LOG_DEST_SYSLOG 2 /* syslog */
#define LOG_DEST_STDIO  4 /* stdout for LOG_NOTICE and LOG_INFO, stderr for all others, LOG_DEBUG included */

/*
 * Stores the destinations (LOG_DEST_*), syslog facility and identity ("ident: " before each line). The
 * first message decides what is left open:
 *
 * - a negative `mask` or `facility`, or no call: LOG_DEST_STDIO and LOG_USER if descriptor 1 is a
 *   terminal, else LOG_DEST_SYSLOG and LOG_DAEMON;
 * - a null `ident`: the process's own name, but none for LOG_DEST_STDIO alone.
 *
 * If it goes to syslog, it opens that for good. Later calls change the destinations, and the identity of
 * the other two (null: none), but not what syslog knows; a negative mask is then taken as its bit
 * pattern.
 */
void log_open(int mask, int facility, const char *ident);

/*
 * Writes a message of `priority` (LOG_EMERG to LOG_DEBUG) to every destination. The format carries its
 * own "\n"; %m prints errno, which is kept.
 */
void _log(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Sets the application's name in the fatal reports below; null: the program's short name. */
void set_app_name(const char *name);

/* Reports a failed assertion as LOG_ERR and aborts; `location` is "path:line". Use log_assert. */
void assert_failure(const char *location, const char *function, const char *expression)
	__attribute__((noreturn, cold));

/* Writes "name: out of memory" straight to stderr, and aborts. */
void out_of_memory(void) __attribute__((noreturn, cold));

/* Ends the process unless `expression`, one condition, holds; in every build. */
#define log_assert(expression)                                                                               \
	((expression) ? (void)0 : assert_failure(__FILE__ ":" LOG_STRINGIFY(__LINE__), __func__, #expression))
#define LOG_STRINGIFY(x)  LOG_STRINGIFY_(x)
#define LOG_STRINGIFY_(x) #x

/*
 * Limits a message to `burst` times in each `interval`. Usually a static variable:
 * `static struct ratelimit_state noisy = {5000, 10, 0, 0, 0};`.
 * An interval below 0: compatibility, negative interval
 */
struct ratelimit_state {
	int32_t interval; /* milliseconds; 0: no limit, nothing is counted */
	int32_t burst;    /* calls let through in a period; 0: none */
	int32_t printed;  /* let through in this period; start from 0 */
	int32_t missed;   /* refused, not yet reported, at most INT32_MAX; start from 0 */
	uint64_t begin;   /* start of the period, monotonic milliseconds; start from 0 */
};

/*
 * Asks whether to write a message. The first call after a period with refusals logs
 * "<name>: <count> callbacks suppressed" as LOG_WARNING.
 *
 * Returns:   1: write it; 0: keep silent.
 */
int ___ratelimit(struct ratelimit_state *state, const char *name);

/*
 * Allocate `size` bytes; 0 gives a block of one byte.
 *
 * Errors:    none: exhausted memory ends the process (out_of_memory).
 * Ownership: the caller's; release it with free.
 */
void *xmalloc(size_t size) __attribute__((malloc, returns_nonnull));
/* Zeroed, but for the byte of a zero `count` or `size`. A product that overflows is exhausted memory. */
void *xcalloc(size_t count, size_t size) __attribute__((malloc, returns_nonnull));
void *xzalloc(size_t size) __attribute__((malloc, returns_nonnull));
/* Never frees: a `size` of 0 shrinks the block to one byte. */
void *xrealloc(void *block, size_t size) __attribute__((returns_nonnull));

/* Null when memory is exhausted, unlike the functions above: compatibility, unchecked copies */
char *xstrdup(const char *text) __attribute__((malloc));
char *xstrndup(const char *text, size_t length_max) __attribute__((malloc));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
