// What stream keeps for the library's own modules.
#pragma once
#include "../stream.h"

// The default `read` of a stream, for those who replace it by something that ends in it.
int32_t stream_read_fd(stream *s, void *bytes, uint32_t count);

// Goes on reading after stream_disable_read.
void stream_resume_read(stream *s);

// True when the descriptor is in error, or both of its directions are over.
bool stream_has_hung_up(const stream *s);

// Where what is written to a held stream is collected: on the stack of whoever holds it, which costs no memory
// before bytes come, and none while nothing is held.
struct stream_room {
	char bytes[16384];
};

// Between the two, what is written to an idle `s` is collected, as far as there is room, so that many small
// writes leave in one. For one stream at a time; a hold of a second one has no effect. What was
// collected also leaves before stream_flush_tx_async looks, when more is written than there is room for,
// and with stream_cleanup, which ends the hold. stream_release does not look at a stream that has been
// cleaned up: it may be gone.
void stream_hold(stream *s, stream_room *room);
void stream_release(stream *s);
