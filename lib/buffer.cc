// A plain array with a length. Growth adds what is needed and a little, instead of doubling: memory on the
// device is scarcer than time.

#include "buffer.h"

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "internal/layout.h"
#include "log.h"

LAYOUT_FIELD(buffer, size, 4);
LAYOUT_FIELD(buffer, length, 8);
LAYOUT_SIZE(buffer, 12);

static constexpr int32_t DEFAULT_SIZE = 512;
static constexpr int32_t GROWTH_SPARE = 128; // bytes added beyond what a write asks for

struct buffer *buffer_new_with_size(int32_t size)
{
	buffer *b = static_cast<buffer *>(xzalloc(sizeof *b));
	b->size = size < 0 ? 0 : size;
	b->data = static_cast<char *>(xmalloc(static_cast<size_t>(b->size)));
	return b;
}

struct buffer *buffer_new(void)
{
	return buffer_new_with_size(DEFAULT_SIZE);
}

void buffer_free(struct buffer *buffer)
{
	if (!buffer)
		return;
	free(buffer->data);
	free(buffer);
}

int32_t buffer_length(const struct buffer *buffer)
{
	return buffer ? buffer->length : 0;
}

char *buffer_get_data(struct buffer *buffer, int32_t *length)
{
	if (!buffer)
		return nullptr;
	*length = buffer->length;
	return buffer->data;
}

// By as much as `bytes`, or as the type of `size` still allows.
static void grow(buffer *b, int64_t bytes)
{
	int64_t size = b->size + bytes;
	if (size > INT32_MAX)
		size = INT32_MAX;
	b->data = static_cast<char *>(xrealloc(b->data, static_cast<size_t>(size)));
	b->size = static_cast<int32_t>(size);
}

int32_t buffer_write(struct buffer *buffer, const void *bytes, int32_t count)
{
	if (!buffer)
		return -1;
	if (count < 0)
		return -EINVAL;
	if (count > INT32_MAX - buffer->length)
		return -ENOMEM;
	if (buffer->size < buffer->length + count)
		grow(buffer, int64_t{count} + GROWTH_SPARE);
	if (count > 0)
		memcpy(buffer->data + buffer->length, bytes, static_cast<size_t>(count));
	buffer->length += count;
	return count;
}

int32_t buffer_printf(struct buffer *buffer, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	int32_t result = buffer_vprintf(buffer, format, arguments);
	va_end(arguments);
	return result;
}

int32_t buffer_vprintf(struct buffer *buffer, const char *format, va_list arguments)
{
	if (!buffer)
		return -1;
	int32_t room = buffer->size - buffer->length;
	int32_t length =
		vsnprintf(buffer->data + buffer->length, static_cast<size_t>(room), format, arguments);
	if (length < 0)
		return length;
	if (length < room) {
		buffer->length += length;
		return length;
	}
	// On purpose the text is not tried again in the larger buffer, and the buffer does not grow by the
	// terminating zero: whoever relies on the sizes finds them as they always were.
	grow(buffer, int64_t{length} - room);
	return -ENOMEM;
}

void buffer_consume(struct buffer *buffer, int32_t count)
{
	if (!buffer || count <= 0)
		return;
	if (count >= buffer->length) {
		buffer->length = 0;
		return;
	}
	buffer->length -= count;
	memmove(buffer->data, buffer->data + count, static_cast<size_t>(buffer->length));
}

void buffer_reset(struct buffer *buffer)
{
	log_assert(buffer);
	buffer_consume(buffer, buffer->length);
}
