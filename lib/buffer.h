/*
 * buffer - bytes appended at the end and consumed from the front.
 *
 * Counts are signed 32-bit numbers of bytes. The bytes are not terminated. Appending may move `data`;
 * consuming moves the rest to the front. Exhausted memory ends the process (log.h).
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

/*
 * Make an empty buffer of 512, or of `size`, bytes; a negative size counts as 0.
 *
 * Ownership: the caller's; release it with buffer_free.
 */
struct buffer *buffer_new(void) __attribute__((returns_nonnull));
struct buffer *buffer_new_with_size(int32_t size) __attribute__((returns_nonnull));

/* Null is ignored. */
void buffer_free(struct buffer *buffer);

/* Returns:   bytes in use; 0 for null. */
int32_t buffer_length(const struct buffer *buffer);

/*
 * Gives the bytes, with their number in `*length`.
 *
 * Returns:   `data`; null for null, with `*length` unwritten.
 * Ownership: borrowed until the next call that appends or consumes.
 */
char *buffer_get_data(struct buffer *buffer, int32_t *length);

/*
 * Appends `count` bytes, which must not lie in this buffer; with 0 they may be null. A buffer too small
 * grows by `count` + 128 bytes over its old size.
 *
 * Returns:   `count`.
 * Errors:    -1: null buffer; -EINVAL: negative count; -ENOMEM: more than INT32_MAX bytes. The buffer is
 *            unchanged.
 */
int32_t buffer_write(struct buffer *buffer, const void *bytes, int32_t count);

/*
 * Appends formatted text, and a zero that is not counted, if both fit in the free space. For texts of
 * unknown length use buffer_write or a stream.
 *
 * Returns:   the number of bytes appended.
 * Errors:    -ENOMEM: it does not fit; nothing is appended. The buffer grows by what the text lacked
 *            without its zero, so it fails again. -1: null buffer. A failure of vsnprintf.
 */
int32_t buffer_printf(struct buffer *buffer, const char *format, ...)
	__attribute__((format(printf, 2, 3), warn_unused_result));
int32_t buffer_vprintf(struct buffer *buffer, const char *format, va_list arguments)
	__attribute__((format(printf, 2, 0), warn_unused_result));

/*
 * Drops `count` bytes, or all, from the front. Consume in large pieces: the rest moves. The storage never
 * shrinks. Null, and a count of 0 or less, are ignored.
 */
void buffer_consume(struct buffer *buffer, int32_t count);

/* Drops all bytes. Null is an assertion that fails. */
void buffer_reset(struct buffer *buffer);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
