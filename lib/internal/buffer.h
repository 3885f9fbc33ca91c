// Functions of buffer for the library's own modules.
#pragma once
#include <string.h>

#include "../buffer.h"

// Appends a text of `length` bytes, which the caller writes to the returned place together with a terminating zero.
// Null if both do not fit; the buffer has then grown as buffer_printf says.
char *buffer_claim_text(buffer *b, int32_t length);

// buffer_printf of "%s".
int32_t buffer_append_text(buffer *b, const char *text, size_t length);

// buffer_write, inline where no growth is needed.
inline int32_t buffer_append(buffer *b, const char *bytes, int32_t count)
{
	if (!b || count > b->size - b->length)
		return buffer_write(b, bytes, count);
	memcpy(b->data + b->length, bytes, static_cast<size_t>(count));
	b->length += count;
	return count;
}
