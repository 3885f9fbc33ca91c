// What buffer keeps for the library's own modules.
#pragma once
#include <string.h>

#include "../buffer.h"

// Room for a text of `length` bytes by the rule of buffer_printf: its place, already counted, or null
// when it does not fit with a terminating zero, and the buffer has grown. The caller writes both.
char *buffer_claim_text(buffer *b, int32_t length);

// buffer_printf of a text that is there already.
int32_t buffer_append_text(buffer *b, const char *text, size_t length);

// buffer_write, which costs a copy and little else where there is room.
inline int32_t buffer_append(buffer *b, const char *bytes, int32_t count)
{
	if (!b || count > b->size - b->length)
		return buffer_write(b, bytes, count);
	memcpy(b->data + b->length, bytes, static_cast<size_t>(count));
	b->length += count;
	return count;
}
