// A plain array with a length. It grows by what a write needs and a little more, not to the double: memory is scarcer
// than time on the device.

#include "buffer.h"

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "internal/buffer.h"
#include "internal/decimal.h"
#include "internal/invariant.h"
#include "log.h"

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

// Adds `bytes` to the size, or fewer if it would exceed INT32_MAX.
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
	if (buffer->size < buffer->length + count) {
		grow(buffer, int64_t{count} + GROWTH_SPARE);       // compatibility, growth
		invariant(count <= buffer->size - buffer->length); // the copy ends inside `data`
	}
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

char *buffer_claim_text(buffer *b, int32_t length)
{
	int32_t space = b->size - b->length;
	if (length < space) {
		b->length += length;
		return b->data + b->length - length;
	}
	// No second try in the larger buffer, and no growth for the terminator: compatibility, formatted text
	int32_t shortfall = length - space;
	if (shortfall <= INT32_MAX - b->size)
		grow(b, shortfall);
	return nullptr;
}

int32_t buffer_append_text(buffer *b, const char *text, size_t length)
{
	if (length > INT32_MAX)
		return -1; // as vsnprintf
	char *place = buffer_claim_text(b, static_cast<int32_t>(length));
	if (!place)
		return -ENOMEM;
	memcpy(place, text, length);
	place[length] = '\0';
	return static_cast<int32_t>(length);
}

static int first_int(va_list arguments)
{
	va_list copy;
	va_copy(copy, arguments);
	int number = va_arg(copy, int);
	va_end(copy);
	return number;
}

static const char *first_text(va_list arguments)
{
	va_list copy;
	va_copy(copy, arguments);
	const char *text = va_arg(copy, const char *);
	va_end(copy);
	return text;
}

__attribute__((format(printf, 2, 0))) static int32_t append_formatted(
	buffer *b, const char *format, va_list arguments)
{
	size_t space = static_cast<size_t>(b->size - b->length);
	int32_t length = vsnprintf(b->data + b->length, space, format, arguments);
	if (length < 0)
		return length;
	return buffer_claim_text(b, length) ? length : -ENOMEM;
}

// A literal, "%d" and "%s" need no formatting. Most headers of an answer are one of these, and formatting them would
// be most of the answer's cost.
int32_t buffer_vprintf(struct buffer *buffer, const char *format, va_list arguments)
{
	if (!buffer)
		return -1;
	if (!strchr(format, '%'))
		return buffer_append_text(buffer, format, strlen(format));
	if (strcmp(format, "%d") == 0) {
		decimal number(first_int(arguments));
		return buffer_append_text(buffer, number.text(), number.length());
	}
	const char *text = strcmp(format, "%s") == 0 ? first_text(arguments) : nullptr;
	return text ? buffer_append_text(buffer, text, strlen(text))
		    : append_formatted(buffer, format, arguments);
}

void buffer_consume(struct buffer *buffer, int32_t count)
{
	if (!buffer || count <= 0)
		return;
	if (count >= buffer->length) {
		buffer->length = 0;
		return;
	}
	invariant(buffer->length <= buffer->size);
	buffer->length -= count;
	memmove(buffer->data, buffer->data + count, static_cast<size_t>(buffer->length));
}

void buffer_reset(struct buffer *buffer)
{
	log_assert(buffer);
	buffer_consume(buffer, buffer->length);
}
