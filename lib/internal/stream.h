// What stream keeps for the library's own modules.
#pragma once
#include "../stream.h"

// The default `read` of a stream, for those who replace it by something that ends in it.
int32_t stream_read_fd(stream *s, void *bytes, uint32_t count);

// Goes on reading after stream_disable_read.
void stream_resume_read(stream *s);

// True when the descriptor is in error, or both of its directions are over.
bool stream_has_hung_up(const stream *s);

// Between the two, what is written to `s` waits in `tx`, up to 16 KiB, so that many small writes leave in one.
// One stream at a time: corking a second one has no effect, nor has corking one that has a backlog. When more is
// written than may wait, and with stream_flush_tx_async and stream_cleanup, the stream is uncorked. stream_uncork
// does not look at a stream that is not corked: it may be gone.
void stream_cork(stream *s);
void stream_uncork(stream *s);
