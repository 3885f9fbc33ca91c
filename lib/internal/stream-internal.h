// What stream keeps for the library's own modules.
#pragma once
#include "../stream.h"

// The default `read` of a stream, for those who replace it by something that ends in it.
int32_t stream_read_fd(stream *s, void *bytes, uint32_t count);

// Goes on reading after stream_disable_read.
void stream_resume_read(stream *s);

// Between the two, what is written to an idle `s` is collected, up to a bound, so that many small
// writes leave in one. For one stream at a time; a hold of a second one has no effect. What was
// collected also leaves before stream_flush_tx_async looks, when more is written than the bound allows,
// and with stream_cleanup, which ends the hold. stream_release does not look at a stream that has been
// cleaned up: it may be gone.
void stream_hold(stream *s);
void stream_release(stream *s);
