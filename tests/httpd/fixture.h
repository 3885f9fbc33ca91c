// What the server's tests share besides the server and its client: texts, and a handler that defers.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "tests/support/http_client.h"
#include "tests/support/memory.h"

namespace http_test
{

// A stale pointer is never right by chance.
inline const bool always_moving = memory.moves = true;

inline std::string repeated(const std::string &text, size_t count)
{
	std::string result;
	while (count-- > 0)
		result += text;
	return result;
}

// Bytes that show where something is missing or out of order.
inline std::string pattern(size_t length)
{
	std::string text(length, '\0');
	for (size_t i = 0; i < length; ++i)
		text[i] = static_cast<char>('!' + (static_cast<uint32_t>(i) * 2654435761u >> 16) % 90);
	return text;
}

inline const std::string bad_request_1_0 = "HTTP/1.0 400 Bad Request\r\n"
					   "Server: kvhttpd\r\n"
					   "Pragma: no-cache\r\n"
					   "Expires: 0\r\n"
					   "Content-Type: text/html\r\n"
					   "Content-Length: 64\r\n"
					   "\r\n"
					   "<html><body><h1>400 - Bad Request</h1><p>Error</p></body></html>";
inline const std::string bad_request_1_1 = "HTTP/1.1" + bad_request_1_0.substr(8);

inline std::string with_headers(const std::string &lines)
{
	return "GET / HTTP/1.1\r\n" + lines + "\r\n";
}

inline std::string with_length(const std::string &value)
{
	return "POST / HTTP/1.1\r\nContent-Length:" + value + "\r\n\r\n";
}

// The handler of a server that answers later, or never.
inline int32_t defer(httpd_conn *conn)
{
	httpd_defer(conn);
	return 1;
}

// A server that defers its answer to requests for /later, and answers others at once.
class httpd_deferral : public server_test
{
protected:
	httpd_conn *deferred = nullptr;

	void SetUp() override
	{
		server_test::SetUp();
		defer_later();
	}
	void defer_later()
	{
		on_request = [this](httpd_conn *conn) {
			if (request_of(conn).target == "/later") {
				httpd_defer(conn);
				deferred = conn;
			} else {
				write_text(conn, "now:" + request_of(conn).target + "\n");
			}
			return 1;
		};
	}
	static std::string get(const std::string &target) { return "GET " + target + " HTTP/1.1\r\n\r\n"; }
};

} // namespace http_test
