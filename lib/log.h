/*
 * log - messages, rate limiting, the fatal reports, and allocation that never fails.
 *
 * One thread, like the whole library. Logging needs no set-up: _log works before and without
 * log_open. Texts handed over (`ident`, `name`) are borrowed for the life of the process, never
 * copied. What cannot be written is dropped without notice.
 */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Where messages go; any combination. */
#define LOG_DEST_KMSG   1 /* the kernel log, opened anew for each message: one message, one record */
#define LOG_DEST_SYSLOG 2 /* syslog */
#define LOG_DEST_STDIO  4 /* stdout for priorities 5 and 6, stderr for all others (7, debug, included) */

/*
 * Chooses the destinations (LOG_DEST_*), the syslog facility (LOG_USER, LOG_DAEMON, ...) and the
 * identity printed as "ident: " before each line; `ident` may be null. It only stores them: syslog
 * is opened by the first message, if it goes there, once and for good, so a later call changes the
 * destinations, and the identity of the other two, but not what syslog knows; if `ident` is null then,
 * there is no identity any more. A mask that is negative then stands for the bits it has.
 *
 * A negative `mask` or `facility`, and no call at all, mean: decide at the first message. With a
 * terminal on descriptor 1 that is LOG_DEST_STDIO and LOG_USER, otherwise LOG_DEST_SYSLOG and
 * LOG_DAEMON.
 *
 * Without an identity the process's own name is used, except when the destinations are
 * LOG_DEST_STDIO alone: a daemon on a terminal prints bare lines. Decided at the first message, too.
 */
void log_open(int mask, int facility, const char *ident);

/*
 * Writes one message at a syslog `priority` (0 emergency .. 7 debug) to every chosen destination.
 * The format carries its own "\n". errno is left as it was, and %m prints it.
 */
void _log(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* The application's name in the two fatal reports below; without one, the program's short name. */
void set_app_name(const char *name);

/*
 * Reports a failed assertion at priority 3 and aborts. `location` is "path:line". Use log_assert.
 */
void assert_failure(const char *location, const char *function, const char *expression)
	__attribute__((noreturn, cold));

/* Writes "name: out of memory" straight to stderr, without the logging above, and aborts. */
void out_of_memory(void) __attribute__((noreturn, cold));

/* Ends the process unless `expression` holds; checked in every build. One condition an assertion. */
#define log_assert(expression)                                                                               \
	((expression) ? (void)0 : assert_failure(__FILE__ ":" LOG_STRINGIFY(__LINE__), __func__, #expression))
#define LOG_STRINGIFY(x)  LOG_STRINGIFY_(x)
#define LOG_STRINGIFY_(x) #x

/*
 * Limits how often a noisy message is written: `burst` times in each `interval`. Usually a static
 * variable beside the message, `static struct ratelimit_state noisy = {5000, 10, 0, 0, 0};`.
 */
struct ratelimit_state {
	int32_t interval; /* milliseconds; 0: no limit, and the counters below are left alone */
	int32_t burst;    /* calls let through in a period; 0: none */
	int32_t printed;  /* calls let through in this period; start from 0 */
	int32_t missed; /* calls refused and not yet reported; start from 0; stays at INT32_MAX once there */
	uint64_t begin; /* start of the period, monotonic milliseconds; start from 0 */
};

/*
 * Returns 1 if the caller may write its message now, 0 if it must keep silent. The first call after
 * a period in which calls were refused logs "<name>: <count> callbacks suppressed" at priority 4.
 */
int ___ratelimit(struct ratelimit_state *state, const char *name);

/*
 * Allocation that ends the process (out_of_memory) rather than return null. A size of 0 gives a
 * block of its own, too, of one byte. Sizes in bytes; release everything with free.
 */
void *xmalloc(size_t size) __attribute__((malloc, returns_nonnull));
/* Zeroed; a product that overflows counts as exhausted memory. The one-byte block of a zero `count`
 * or `size` is the exception: its byte is not zeroed. */
void *xcalloc(size_t count, size_t size) __attribute__((malloc, returns_nonnull));
void *xzalloc(size_t size) __attribute__((malloc, returns_nonnull));
/* Never frees: a `size` of 0 shrinks the block to one byte. */
void *xrealloc(void *block, size_t size) __attribute__((returns_nonnull));

/* These return null when memory is exhausted, unlike the functions above: compatibility, unchecked copies */
char *xstrdup(const char *text) __attribute__((malloc));
char *xstrndup(const char *text, size_t length_max) __attribute__((malloc));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
