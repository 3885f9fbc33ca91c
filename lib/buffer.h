/*
 * buffer - bytes appended at the end and consumed from the front.
 *
 * Exhausted memory ends the process (log.h). Counts are signed 32-bit numbers of bytes. What is in
 * the buffer is not terminated: `length` alone says how much there is. Any call that appends may
 * move `data`; any call that consumes moves the bytes behind to the front.
 */
#pragma once
#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* 0 <= length <= size, always. */
struct buffer {
	char *data;     /* owned; never null in a live buffer */
	int32_t size;   /* bytes allocated */
	int32_t length; /* bytes in use, from `data` on */
};

/* A new, empty buffer of 512, or of `size`, bytes; a negative size counts as 0. Release it with
 * buffer_free. */
struct buffer *buffer_new(void) __attribute__((returns_nonnull));
struct buffer *buffer_new_with_size(int32_t size) __attribute__((returns_nonnull));

/* Null is ignored. */
void buffer_free(struct buffer *buffer);

/* Bytes in use; 0 for null. */
int32_t buffer_length(const struct buffer *buffer);

/*
 * The bytes, and how many in `*length`. Borrowed until the next call that appends or consumes.
 * Null for null, and `*length` is then not written.
 */
char *buffer_get_data(struct buffer *buffer, int32_t *length);

/*
 * Appends `count` bytes. A buffer too small grows by `count` + 128 bytes over its old size, not to
 * double: memory on the device is scarce. `bytes` may be null if `count` is 0, and must
 * not lie in this buffer.
 *
 * Returns: `count`; -1 for a null buffer; -EINVAL for a negative count; -ENOMEM if the length would
 *          exceed INT32_MAX. The buffer is unchanged after an error.
 */
int32_t buffer_write(struct buffer *buffer, const void *bytes, int32_t count);

/*
 * Appends formatted text, if it fits, with a terminating zero that is not counted, into the space
 * that is free now. Returns the number of bytes appended.
 *
 * A text that does not fit is not appended: the buffer grows by what the text, without
 * its zero, lacked, its length stays, and the result is -ENOMEM. (Asking again then fails again,
 * without growing.) For texts of unknown length, format first and use buffer_write, or write to a
 * stream. -1 for a null buffer; a negative result of vsnprintf is returned as it is.
 *
 * Whoever does not look at the result sends what lacks a piece, so compilers warn.
 */
int32_t buffer_printf(struct buffer *buffer, const char *format, ...)
	__attribute__((format(printf, 2, 3), warn_unused_result));
int32_t buffer_vprintf(struct buffer *buffer, const char *format, va_list arguments)
	__attribute__((format(printf, 2, 0), warn_unused_result));

/*
 * Drops `count` bytes from the front, or all if there are no more; the rest moves to the front, so
 * consume in large pieces. The storage never shrinks. Null is ignored; so is a count of 0 or less.
 */
void buffer_consume(struct buffer *buffer, int32_t count);

/* Drops all bytes. Null ends the process with an assertion. */
void buffer_reset(struct buffer *buffer);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
