/*
 * stream - a non-blocking descriptor with a receive and a transmit buffer.
 *
 * Call evloop_init first: a stream watches its descriptor from stream_init on, and without a loop it
 * would never hear anything.
 *
 * Whatever arrives is read into `rx` as soon as it is there. Whatever is written is sent before
 * stream_write returns, as far as the kernel takes it, and the rest waits in `tx`. (httpd gathers the
 * answers to requests that were received together; httpd.h says when.) The owner is told of new bytes
 * (`notify_read`) and of end of file or an error (`notify_state`) on a later pass of the loop, never
 * from inside the dispatch of the descriptor; of a drained `tx` (`notify_write`) at once.
 *
 * The record belongs to the caller, who may clean it up and release it in any of the three
 * callbacks. The descriptor, too: the stream never closes it. Everything on the loop's thread.
 * Failures are negated errno values.
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

/*
 * Start from zero bytes; set what you need of `read`, `write` and the three callbacks (before or
 * after stream_init), and leave the rest to stream_init.
 */
struct stream {
	struct evloop_io io; /* `io.fd` is the descriptor */
	struct evloop_timeout state_timer;
	struct evloop_timeout read_timer;
	struct buffer *tx; /* owned by the stream: bytes not sent yet */
	struct buffer *rx; /* owned by the stream: bytes received; consume them with buffer_consume */
	uint8_t state;     /* STREAM_EOF, STREAM_ERROR, STREAM_READ_DISABLED */

	/*
	 * How bytes are read: returns how many (1 to `count`), 0 at end of file, -EAGAIN when there are
	 * none now, another negative value on an error. Replaceable, by setting it before stream_init;
	 * the default reads from `io.fd`. It is called until it finds nothing, and never after
	 * stream_disable_read or an error. It must not clean the stream up.
	 *
	 * Only here can `rx` be bounded: the owner is not called before the descriptor is empty, so a fast
	 * sender fills `rx` however soon it is consumed. This one stops at a mark:
	 *
	 *	int32_t space = RX_BYTES_MAX - buffer_length(stream->rx);
	 *	if (space <= 0)
	 *		return -EAGAIN;
	 *	ssize_t length = read(stream->io.fd, bytes, count < (uint32_t)space ? count : (uint32_t)space);
	 *	return length >= 0 ? (int32_t)length : errno == EAGAIN || errno == EINTR ? -EAGAIN : -1;
	 *
	 * The rest stays in the kernel, which slows the sender down. While `rx` is full the loop calls again on
	 * every pass, so consume some of it at each notify_read.
	 */
	int32_t (*read)(struct stream *stream, void *bytes, uint32_t count);
	/*
	 * How bytes are written: returns how many were taken (0 to `count`, fewer when the descriptor
	 * would block), or a negative value on an error. Replaceable in the same way. It must not clean
	 * the stream up. The default writes to `io.fd`, where a peer that has gone may raise SIGPIPE.
	 */
	int32_t (*write)(struct stream *stream, const void *bytes, uint32_t count);

	void (*notify_read)(struct stream *stream); /* `rx` has new bytes; may be null */
	void (*notify_state)(
		struct stream *stream); /* `state` gained EOF (once) or ERROR (once); may be null */
	/* `tx` is empty: it has drained, or the descriptor reported a hang-up when it was; may be null */
	void (*notify_write)(struct stream *stream);
};

/*
 * Takes up `fd`, which becomes non-blocking, and starts reading. The loop must have been
 * initialised (evloop_init). Returns 0, or -ENOMEM, which cannot happen as exhausted memory ends
 * the process.
 *
 * All that arrives is read, in chunks of 1024 bytes until there is no more, however much that is: see
 * `read`. Beyond INT32_MAX bytes in `rx` it would be a STREAM_ERROR. A descriptor that epoll does not take,
 * of a regular file, say, is never read: that is not checked.
 *
 * A peer that hangs up after its end of file is reported by the loop on every pass; so is a pipe whose last
 * writer has closed it. To read a pipe to its end, take in notify_state what is left in `rx`, which is all
 * that ever comes, and call stream_cleanup at once. A stream with STREAM_ERROR whose peer hangs up leaves the
 * loop by itself.
 */
int stream_init(struct stream *stream, int fd);

/*
 * Writes `count` bytes: to the descriptor, as far as nothing is queued before them and it takes
 * them, the rest to `tx`. A stream without a backlog costs one system call and no copy. What the
 * descriptor has taken is the kernel's when this returns: the process may end, or hand the descriptor to
 * a child. What is in `tx` is lost with the process.
 *
 * Returns: the number of bytes sent or queued, normally `count`; 0 once STREAM_ERROR is set (the
 *          bytes are dropped), and for null `bytes`; the negative result of `write` when that fails
 *          now (notify_state follows); -EINVAL after stream_cleanup or before stream_init, and for a
 *          `count` that does not fit behind what `tx` holds (nothing of it is written then).
 */
int32_t stream_write(struct stream *stream, const void *bytes, uint32_t count);

/*
 * Formats a text of any length and writes it. Returns as stream_write; 0 once STREAM_ERROR is set;
 * negative if formatting fails.
 */
int32_t stream_printf(struct stream *stream, const char *format, ...) __attribute__((format(printf, 2, 3)));
int32_t stream_vprintf(struct stream *stream, const char *format, va_list arguments)
	__attribute__((format(printf, 2, 0)));

/*
 * Calls `notify_read`, if it is set, on the loop's next pass: for an owner that has left bytes in
 * `rx` and wants to look again.
 */
void stream_notify_read(struct stream *stream);

/*
 * Stops reading for good. What has been received stays in `rx`, what comes stays in the kernel, and the
 * end of file of a peer that still reads is not noticed. A hang-up or a reset is: the stream enters
 * STREAM_ERROR, whatever is left to read, notify_state follows once, and the stream leaves the loop.
 */
void stream_disable_read(struct stream *stream);

/*
 * Calls `callback` once everything written has been taken by the descriptor: before it returns if
 * that is so already, otherwise as `notify_write`, which it replaces. The callback may clean up and
 * release the stream. After an error it is called at once, with what was written dropped, if `tx` is
 * empty, otherwise never: look at `state`, or wait for notify_state.
 */
void stream_flush_tx_async(struct stream *stream, void (*callback)(struct stream *stream));

/*
 * Takes the stream off the loop and frees both buffers; they become null. What was not sent is
 * lost. The descriptor stays open, and no callback of this stream runs any more; close it afterwards,
 * not before, when its number may already be another's. A stream that was cleaned up already is left alone.
 */
void stream_cleanup(struct stream *stream);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
