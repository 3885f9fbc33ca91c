// Paths of a bounded length.
#pragma once
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

inline constexpr int PATH_BYTES = 4096;

// Puts a path together. False if that fails, or if the path is longer than PATH_BYTES. One of exactly
// that length passes without its last character: compatibility, paths of 4096
__attribute__((format(printf, 2, 3))) inline bool format_path(
	char (&path)[PATH_BYTES], const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	int length = vsnprintf(path, sizeof path, format, arguments);
	va_end(arguments);
	return length >= 0 && length <= PATH_BYTES;
}
