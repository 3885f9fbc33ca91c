// What goes to the system log, with its priority. To be included by one source of a test program: its definitions
// stand before the C library's, for the library under test too, which calls the second where calls are fortified.
#pragma once

#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include <string>
#include <vector>

struct logged {
	int priority;
	std::string text;

	bool operator==(const logged &other) const = default;
};

static std::vector<logged> messages;

extern "C" {
void __vsyslog_chk(int priority, int flag, const char *format, va_list arguments);

__attribute__((format(printf, 2, 0))) void vsyslog(int priority, const char *format, va_list arguments)
{
	char text[256];
	vsnprintf(text, sizeof(text), format, arguments);
	messages.push_back({priority, text});
}

__attribute__((format(printf, 3, 0))) void __vsyslog_chk(
	int priority, int, const char *format, va_list arguments)
{
	vsyslog(priority, format, arguments);
}
}
