// Functions of stream for the library's own modules.
#pragma once
#include "../stream.h"

// The default `read` of a stream. A replacement may end with it.
int32_t stream_read_fd(stream *s, void *bytes, uint32_t count);

// Undoes stream_disable_read.
void stream_resume_read(stream *s);

// True if the descriptor is in error, or both of its directions have ended.
bool stream_has_hung_up(const stream *s);

// While a stream is corked, written bytes wait in `tx`, so that many small writes leave in one. One stream can be
// corked at a time: corking a second one has no effect, nor has corking one with a backlog. A write that would make
// more than 16 KiB wait uncorks the stream; so do stream_flush_tx_async and stream_cleanup. stream_uncork ignores a
// stream that is not corked, and does not read its record: it may be gone.
void stream_cork(stream *s);
void stream_uncork(stream *s);
