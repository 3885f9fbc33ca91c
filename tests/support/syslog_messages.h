// What goes to the system log, with its priority. A program that includes this is linked with test_system_calls.
#pragma once

#include <stdio.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "tests/support/system_calls.h"

struct logged {
	int priority;
	std::string text;

	bool operator==(const logged &other) const = default;
};

inline std::vector<logged> messages;

inline auto keeping_messages =
	system_calls::vsyslog.replace([](int priority, const char *format, va_list arguments) {
		char text[256];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
		vsnprintf(text, sizeof(text), format, arguments);
#pragma GCC diagnostic pop
		messages.push_back({priority, text});
	});
