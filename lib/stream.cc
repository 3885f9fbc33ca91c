// A descriptor with two buffers, whose owner may release it in any of its callbacks. The watcher's callback only moves
// bytes between descriptor and buffers. Two timeouts without a delay tell the owner on a later pass. The one
// exception is notify_write: the watcher's callback makes this call last.

#include "stream.h"

#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "internal/buffer.h"
#include "internal/evloop.h"
#include "internal/intrusive.h"
#include "internal/invariant.h"
#include "internal/nonblocking.h"
#include "internal/stream.h"

static constexpr int32_t TX_SIZE = 256; // bytes at first
static constexpr int32_t RX_SIZE = 512;
static constexpr int32_t READ_CHUNK = 1024; // bytes read at once, onto the stack
static constexpr int32_t CORKED_BYTES_MAX = 16384;

// While it is corked, all bytes in its `tx` were written since then. Null if no stream is corked.
static stream *corked_stream;

int32_t stream_read_fd(stream *s, void *bytes, uint32_t count)
{
	ssize_t length;
	do
		length = read(s->io.fd, bytes, count);
	while (length < 0 && errno == EINTR);
	if (length >= 0)
		return static_cast<int32_t>(length);
	return errno == EAGAIN ? -EAGAIN : -1;
}

static int32_t write_fd(stream *s, const void *bytes, uint32_t count)
{
	if (!bytes)
		return 0;
	uint32_t taken = 0;
	while (taken < count) {
		ssize_t length = write(s->io.fd, static_cast<const char *>(bytes) + taken, count - taken);
		if (length > 0)
			taken += static_cast<uint32_t>(length);
		else if (length == 0 || errno == EAGAIN)
			break;
		else if (errno != EINTR)
			return -1;
	}
	return static_cast<int32_t>(taken);
}

static bool has_backlog(const stream *s)
{
	return s->tx->length > 0 && s != corked_stream;
}

static void update_watcher(stream *s, bool want_write)
{
	if (!s->tx) // cleaned up: it stays off the loop
		return;
	unsigned int flags = 0;
	if (!(s->state & (STREAM_EOF | STREAM_ERROR | STREAM_READ_DISABLED)))
		flags |= EVLOOP_READ;
	if (want_write || (!(s->state & STREAM_ERROR) && has_backlog(s)))
		flags |= EVLOOP_WRITE;
	if (flags == 0 && !s->io.registered) // its owner took it off the loop, or epoll refused it: stay off
		return;
	evloop_io_add(&s->io, flags);
}

// Sets a bit of `state`. The first time, the owner is told on a later pass.
static void enter_state(stream *s, uint8_t state)
{
	if (!(s->state & state) && s->notify_state)
		evloop_timeout_set(&s->state_timer, 0);
	s->state |= state;
	update_watcher(s, false);
}

// End of file alone does not stop it: the descriptor may still hang up.
static bool has_stopped_reading(const stream *s)
{
	return s->state & (STREAM_ERROR | STREAM_READ_DISABLED);
}

static void read_all(stream *s)
{
	char chunk[READ_CHUNK];
	while (!has_stopped_reading(s)) { // `read` may stop reading
		int32_t length = s->read(s, chunk, READ_CHUNK);
		if (length == -EAGAIN)
			return;
		if (length == 0)
			return enter_state(s, STREAM_EOF);
		// A result larger than the chunk, or more than `rx` can count, is an error. Nothing of it is kept.
		if (length < 0 || length > READ_CHUNK || buffer_write(s->rx, chunk, length) < 0)
			return enter_state(s, STREAM_ERROR);
		stream_notify_read(s);
	}
}

bool stream_has_hung_up(const stream *s)
{
	pollfd query = {.fd = s->io.fd, .events = 0, .revents = 0};
	return poll(&query, 1, 0) > 0;
}

// Reading has stopped, so the event is a hang-up, or was fetched before. The loop would report a hang-up on every
// pass, so the stream leaves it.
static void handle_hang_up(stream *s)
{
	if (!stream_has_hung_up(s))
		return;
	enter_state(s, STREAM_ERROR);
	evloop_io_delete(&s->io);
	evloop_forget(&s->io);
}

static void read_step(stream *s)
{
	if (has_stopped_reading(s))
		handle_hang_up(s);
	else
		read_all(s);
}

// Sends as much of `tx` as `write` takes.
static void send_tx(stream *s)
{
	while (s->tx->length > 0 && !(s->state & STREAM_ERROR)) {
		int32_t taken = s->write(s, s->tx->data, static_cast<uint32_t>(s->tx->length));
		if (taken < 0)
			return enter_state(s, STREAM_ERROR);
		if (taken == 0)
			return;
		buffer_consume(s->tx, taken);
	}
}

// May release `s`, in notify_write.
static void write_backlog(stream *s)
{
	send_tx(s);
	if (s->tx->length > 0)
		return;
	update_watcher(s, false);
	if (s->notify_write)
		s->notify_write(s);
}

static void on_io(evloop_io *io, unsigned int events)
{
	stream *s = owner_of(io, &stream::io);
	invariant(s->tx); // stream_cleanup leaves no event pending
	if (events & EVLOOP_READ)
		read_step(s);
	if (events & EVLOOP_WRITE)
		write_backlog(s);
}

static void on_state_timer(evloop_timeout *timeout)
{
	stream *s = owner_of(timeout, &stream::state_timer);
	if (s->notify_state)
		s->notify_state(s);
}

static void on_read_timer(evloop_timeout *timeout)
{
	stream *s = owner_of(timeout, &stream::read_timer);
	if (s->notify_read)
		s->notify_read(s);
}

int stream_init(struct stream *stream, int fd)
{
	invariant(stream != corked_stream); // stream_cleanup has uncorked the one that was at this address
	stream->tx = buffer_new_with_size(TX_SIZE);
	stream->rx = buffer_new_with_size(RX_SIZE);
	if (!stream->read)
		stream->read = stream_read_fd;
	if (!stream->write)
		stream->write = write_fd;
	stream->state = 0;
	stream->state_timer = {
		.next = nullptr, .prev = nullptr, .pending = 0, .cb = on_state_timer, .expires = 0};
	stream->read_timer = {
		.next = nullptr, .prev = nullptr, .pending = 0, .cb = on_read_timer, .expires = 0};
	stream->io.fd = fd;
	stream->io.registered = 0;
	stream->io.cb = on_io;
	evloop_io_add(&stream->io, EVLOOP_READ);
	make_nonblocking(fd);
	return 0;
}

static int32_t write_through(stream *s, const void *bytes, uint32_t count)
{
	uint32_t taken = 0;
	if (s->tx->length == 0) {
		int32_t result = s->write(s, bytes, count);
		if (result < 0) {
			enter_state(s, STREAM_ERROR);
			return result;
		}
		taken = static_cast<uint32_t>(result);
		if (taken >= count)
			return static_cast<int32_t>(count);
	}
	buffer_write(s->tx, static_cast<const char *>(bytes) + taken, static_cast<int32_t>(count - taken));
	update_watcher(s, true);
	return static_cast<int32_t>(count);
}

int32_t stream_write(struct stream *stream, const void *bytes, uint32_t count)
{
	if (!stream->tx)
		return -EINVAL;
	if (stream == corked_stream && count > static_cast<uint32_t>(CORKED_BYTES_MAX - stream->tx->length))
		stream_uncork(stream); // may enter STREAM_ERROR
	if ((stream->state & STREAM_ERROR) || !bytes)
		return 0;
	if (count > static_cast<uint32_t>(INT32_MAX - stream->tx->length))
		return -EINVAL;
	if (stream == corked_stream)
		return buffer_append(
			stream->tx, static_cast<const char *>(bytes), static_cast<int32_t>(count));
	return write_through(stream, bytes, count);
}

int32_t stream_printf(struct stream *stream, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	int32_t result = stream_vprintf(stream, format, arguments);
	va_end(arguments);
	return result;
}

int32_t stream_vprintf(struct stream *stream, const char *format, va_list arguments)
{
	if (stream->state & STREAM_ERROR)
		return 0;
	char *text;
	int length = vasprintf(&text, format, arguments);
	if (length < 0)
		return length;
	int32_t result = stream_write(stream, text, static_cast<uint32_t>(strlen(text)));
	free(text);
	return result;
}

void stream_notify_read(struct stream *stream)
{
	if (stream->tx && stream->notify_read)
		evloop_timeout_set(&stream->read_timer, 0);
}

void stream_disable_read(struct stream *stream)
{
	stream->state |= STREAM_READ_DISABLED;
	update_watcher(stream, false);
}

void stream_resume_read(stream *s)
{
	s->state &= static_cast<uint8_t>(~STREAM_READ_DISABLED);
	update_watcher(s, false);
}

void stream_flush_tx_async(struct stream *stream, void (*callback)(struct stream *stream))
{
	stream_uncork(stream);
	if (buffer_length(stream->tx) == 0)
		callback(stream);
	else
		stream->notify_write = callback;
}

void stream_cleanup(struct stream *stream)
{
	if (!stream->tx)
		return;
	stream_uncork(stream);
	evloop_io_delete(&stream->io);
	evloop_forget(&stream->io);
	evloop_timeout_cancel(&stream->state_timer);
	evloop_timeout_cancel(&stream->read_timer);
	buffer_free(stream->rx);
	buffer_free(stream->tx);
	stream->rx = stream->tx = nullptr;
}

void stream_cork(stream *s)
{
	if (!corked_stream && s->tx->length == 0)
		corked_stream = s;
}

void stream_uncork(stream *s)
{
	if (s != corked_stream)
		return;
	invariant(s->tx->length <= CORKED_BYTES_MAX); // stream_write uncorks before it would exceed this
	corked_stream = nullptr;
	send_tx(s);
	if (s->tx->length > 0)
		update_watcher(s, false);
}
