/*
 * stream - a non-blocking descriptor with a receive and a transmit buffer.
 *
 * What arrives is read into `rx`. What is written is sent before stream_write returns, as far as the
 * kernel takes it; the rest waits in `tx` (httpd.h also corks answers). The owner is told of new bytes,
 * end of file and errors on a later pass of the loop, of a drained `tx` at once.
 *
 * The loop's thread; call evloop_init first. Failures are negated errno values. The record is the
 * caller's, who may clean it up and release it in all three callbacks. So is the descriptor: the stream
 * never closes it.
 */
#pragma once
#include <stdarg.h>
#include <stdint.h>

#include "buffer.h"
#include "evloop.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Bits of `state`. */
#define STREAM_EOF           1 /* end of file was read; writing goes on */
#define STREAM_ERROR         2 /* a read or a write failed; nothing is read or written any more */
#define STREAM_READ_DISABLED 4 /* the owner stopped reading: stream_disable_read */

/* Start from zero bytes; set what you need of the functions. */
struct stream {
	struct evloop_io io;               /* `io.fd` is the descriptor */
	struct evloop_timeout state_timer; /* the stream's */
	struct evloop_timeout read_timer;  /* the stream's */
	struct buffer *tx;                 /* owned by the stream: bytes not sent yet */
	struct buffer *rx;                 /* owned by the stream: bytes received; consume them */
	uint8_t state;                     /* STREAM_* */

	/*
	 * Reads; set it before stream_init to replace the default, which reads `io.fd`. Returns the bytes
	 * read (1 to `count`), 0 at end of file, -EAGAIN for none now, else negative for an error. Called
	 * until it finds nothing, never after stream_disable_read or an error. Must not clean the stream
	 * up.
	 *
	 * Only here can `rx` be bounded (docs/recipes.md): the owner is not called before the descriptor
	 * is empty, however fast the sender.
	 */
	int32_t (*read)(struct stream *stream, void *bytes, uint32_t count);
	/*
	 * Writes; replaced likewise. Returns the bytes taken (0 to `count`, fewer if it would block),
	 * negative for an error. Must not clean the stream up. The default writes to `io.fd`; a peer that
	 * has gone may raise SIGPIPE.
	 */
	int32_t (*write)(struct stream *stream, const void *bytes, uint32_t count);

	/* May be null; set them before or after stream_init. */
	void (*notify_read)(struct stream *stream);  /* `rx` has new bytes */
	void (*notify_state)(struct stream *stream); /* `state` gained EOF (once) or ERROR (once) */
	void (*notify_write)(struct stream *stream); /* `tx` has drained, or is empty at a hang-up */
};

/*
 * Takes up `fd`, makes it non-blocking, and reads all that arrives, in chunks of 1024 bytes. More than
 * INT32_MAX bytes in `rx` are a STREAM_ERROR. A descriptor that epoll does not take (a regular file) is
 * never read; that is not checked.
 *
 * The loop reports a hang-up after end of file, and a pipe without a writer, on every pass: at the end of
 * a pipe take the rest from `rx` in notify_state, and call stream_cleanup at once. After STREAM_ERROR a
 * stream whose peer hangs up leaves the loop by itself.
 *
 * Returns:   0; exhausted memory ends the process.
 */
int stream_init(struct stream *stream, int fd);

/*
 * Writes `count` bytes to the descriptor, unless others are queued; the rest goes to `tx`. Without a
 * backlog that is one system call and no copy. What the descriptor has taken is the kernel's: the process
 * may end, or hand it to a child. `tx` is lost with the process.
 *
 * Returns:   the bytes sent or queued, normally `count`; 0 for null `bytes`, and after STREAM_ERROR (they
 *            are dropped).
 * Errors:    the negative result of `write` (notify_state follows); -EINVAL before stream_init, after
 *            stream_cleanup, and if `tx` could not hold `count` more bytes: nothing is written.
 */
int32_t stream_write(struct stream *stream, const void *bytes, uint32_t count);

/*
 * Formats a text of any length and writes it.
 *
 * Returns:   as stream_write.
 * Errors:    as stream_write; negative if formatting fails.
 */
int32_t stream_printf(struct stream *stream, const char *format, ...) __attribute__((format(printf, 2, 3)));
int32_t stream_vprintf(struct stream *stream, const char *format, va_list arguments)
	__attribute__((format(printf, 2, 0)));

/* Calls `notify_read`, if set, on the next pass: for an owner that has left bytes in `rx`. */
void stream_notify_read(struct stream *stream);

/*
 * Stops reading for good. What was received stays in `rx`, what comes in the kernel. End of file of a
 * peer that still reads is not noticed. A hang-up or reset is STREAM_ERROR, whatever is left to read:
 * notify_state follows once, and the stream leaves the loop.
 */
void stream_disable_read(struct stream *stream);

/*
 * Calls `callback` once the descriptor has taken everything written: at once if `tx` is empty, else as
 * `notify_write`, which it replaces.
 *
 * Errors:    after STREAM_ERROR it is called at once if `tx` is empty (what was written is lost), else
 *            never: look at `state`, or wait for notify_state.
 * Callbacks: it may clean up and release the stream.
 */
void stream_flush_tx_async(struct stream *stream, void (*callback)(struct stream *stream));

/*
 * Takes the stream off the loop and frees both buffers, which become null. What was not sent is lost. A
 * stream not in use is left alone. Close the descriptor afterwards, not before.
 *
 * Callbacks: none of this stream's runs afterwards.
 */
void stream_cleanup(struct stream *stream);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
