// What stream keeps for the library's own modules.
#pragma once
#include "../stream.h"

// The default `read` of a stream.
int32_t stream_read_fd(stream *s, void *bytes, uint32_t count);

// Stop and go on reading: STREAM_READ_DISABLED, set and cleared.
void stream_pause_read(stream *s);
void stream_resume_read(stream *s);

// Between the two, what is written to an idle `s` is collected, up to a bound, so that many small
// writes leave in one. One stream at a time: a second stream_hold has no effect until the first
// is released. What was collected also leaves before stream_flush_tx_async looks, before the bound
// would be exceeded, and with stream_cleanup. `s` may have been released since; it is not looked at then.
void stream_hold(stream *s);
void stream_release(stream *s);
