// What the HTTP server must answer, worked out by a second parser that knows nothing of the first, and a
// corpus of requests to hold the two against each other.
#pragma once
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "lib/httpd.h"

namespace http_test
{

using namespace std::string_literals;

// One request as a handler sees it.
struct request {
	int32_t version = 0;
	int32_t method = 0;
	std::string target;
	std::optional<std::string> host, path, query;
	std::string decoded_path;
	std::map<std::string, std::string> headers;
	bool close = false;
	std::optional<std::string> body;
};

inline std::string bracketed(const std::optional<std::string> &text)
{
	return text ? "<" + *text + ">" : "none";
}

// The answer of the handler that the tests use most: all that it was given.
inline std::string describe(const request &seen)
{
	std::string text = "{" + std::to_string(seen.method) + " 1." + std::to_string(seen.version) +
			   " target=" + bracketed(seen.target) + " host=" + bracketed(seen.host) +
			   " path=" + bracketed(seen.path) + " query=" + bracketed(seen.query) +
			   " decoded=" + bracketed(seen.decoded_path) +
			   " close=" + std::to_string(seen.close);
	for (const auto &[name, value] : seen.headers)
		text += " " + bracketed(name) + "=" + bracketed(value);
	return text + " body=" + bracketed(seen.body) + "}\n";
}

// The whole error answer, from the table of codes and the fixed page.
inline std::string error_answer(int version, int code)
{
	static const std::map<int, std::string> reasons = {{200, "OK"}, {400, "Bad Request"},
		{404, "Not found"}, {405, "Method Not Allowed"}, {406, "Not Acceptable"},
		{417, "Expectation Failed"}, {501, "Not Implemented"}};
	auto found = reasons.find(code);
	std::string reason = found == reasons.end() ? "" : found->second;
	std::string number = std::to_string(code);
	std::string page = "<html><body><h1>" + number + " - " + reason + "</h1><p>Error</p></body></html>";
	return (version ? "HTTP/1.1 " : "HTTP/1.0 ") + number + " " + reason +
	       "\r\n"
	       "Server: kvhttpd\r\n"
	       "Pragma: no-cache\r\n"
	       "Expires: 0\r\n"
	       "Content-Type: text/html\r\n"
	       "Content-Length: " +
	       std::to_string(page.size()) + "\r\n\r\n" + page;
}

// Decodes `length` bytes of `text` from `at` on. Every escape consumes three bytes but counts as one, so
// the bytes after it are read as well; after the text there are zero bytes, and the result ends at the first.
inline std::string model_decode(std::string_view text, size_t at, size_t length)
{
	auto byte = [&](size_t index) {
		return index < text.size() ? static_cast<unsigned char>(text[index]) : 0u;
	};
	auto digit = [](unsigned c) {
		if (c >= '0' && c <= '9')
			return c - '0';
		return (c >= 'A' && c <= 'Z' ? c + 32 : c) - 87;
	};
	std::string result;
	for (size_t left = length; left > 0; --left) {
		unsigned c = byte(at);
		if (c != '%') {
			result += c == '+' ? ' ' : static_cast<char>(c);
			at += 1;
		} else if (left >= 3 && byte(at + 1) && byte(at + 2)) {
			result += static_cast<char>(digit(byte(at + 1)) * 16 | digit(byte(at + 2)));
			at += 3;
		} else {
			at += 1;
		}
	}
	return result.substr(0, result.find('\0'));
}

// A connection's far side, as it must behave with the handler above.
class model
{
	static constexpr size_t limit = 66561;
	static constexpr const char *white = " \t\n\v\f\r";

	std::string rx_;
	std::string answers_;
	bool closed_ = false;
	std::optional<request> head_; // parsed, and waiting for its body
	size_t head_length_ = 0, body_length_ = 0;
	bool has_length_ = false;

	struct malformed {
		int version;
	};

	static std::string as_text(const std::string &bytes) { return bytes.substr(0, bytes.find('\0')); }

	static bool starts_with(std::string_view text, std::string_view prefix)
	{
		return text.substr(0, prefix.size()) == prefix;
	}

	void split_target(request *into, size_t target_at)
	{
		const std::string &target = into->target;
		size_t path_at = 0;
		if (target[0] != '/') {
			if (target.size() < 8)
				throw malformed{0};
			size_t authority_at;
			if (starts_with(target, "http://"))
				authority_at = 7;
			else if (target.size() > 8 && starts_with(target, "https://"))
				authority_at = 8;
			else
				throw malformed{0};
			path_at = target.find('/', authority_at);
			if (path_at != authority_at)
				into->host = target.substr(authority_at, path_at - authority_at);
		}
		into->decoded_path = "/";
		if (path_at == std::string::npos)
			return;
		size_t query_at = target.find('?', path_at);
		into->path = target.substr(path_at, query_at - path_at);
		if (query_at != std::string::npos)
			into->query = target.substr(query_at);
		into->decoded_path = model_decode(rx_, target_at + path_at, into->path->size());
	}

	size_t read_request_line(request *into, std::string_view head)
	{
		std::string_view line = head.substr(0, head.find("\r\n"));
		if (line.size() < 14)
			throw malformed{0};
		size_t at;
		if (starts_with(line, "GET ")) {
			into->method = HTTPD_METHOD_GET;
			at = 4;
		} else if (starts_with(line, "POST ")) {
			into->method = HTTPD_METHOD_POST;
			at = 5;
		} else {
			into->method = HTTPD_METHOD_OTHER;
			at = line.find(' ');
		}
		if (at == std::string_view::npos)
			throw malformed{0};
		size_t target_at = head.find_first_not_of(' ', at);
		size_t target_end = head.find(' ', target_at);
		if (target_end == std::string_view::npos)
			throw malformed{0};
		into->target = std::string(head.substr(target_at, target_end - target_at));
		split_target(into, target_at);
		size_t version_at = head.find_first_not_of(' ', target_end);
		std::string_view rest = version_at == std::string_view::npos ? "" : head.substr(version_at);
		if (starts_with(rest, "HTTP/1.1\r\n"))
			into->version = 1;
		else if (!starts_with(rest, "HTTP/1.0\r\n"))
			throw malformed{0};
		return version_at + 10;
	}

	static std::string collapsed(const std::string &value)
	{
		std::string result;
		for (char c : value) {
			bool space = c != '\0' && strchr(white, c);
			if (!space)
				result += c;
			else if (result.empty() || result.back() != ' ')
				result += ' ';
		}
		return result;
	}

	void read_length(const std::string &value, int version)
	{
		if (value.empty())
			throw malformed{version};
		const char *text = value.c_str();
		char *end;
		unsigned long number = strtoul(text, &end, 10);
		bool whole = end != text && static_cast<size_t>(end - text) == value.size();
		if (!whole || number >= limit || (has_length_ && number != body_length_))
			throw malformed{version};
		has_length_ = true;
		body_length_ = number;
	}

	void read_header(request *into, const std::string &line)
	{
		size_t colon = line.find(':');
		if (colon == std::string::npos || colon + 1 == line.size())
			throw malformed{into->version};
		std::string name = line.substr(0, colon);
		if (name.find('\0') != std::string::npos)
			throw malformed{into->version};
		std::string value = line.substr(colon + 1);
		size_t first = value.find_first_not_of(white);
		value = first == std::string::npos
				? ""
				: value.substr(first, value.find_last_not_of(white) - first + 1);
		if (name == "Content-Length") {
			read_length(value, into->version);
		} else if (name == "Connection") {
			if (value.empty())
				throw malformed{into->version};
			into->close |= value == "close";
		} else {
			into->headers[name] = as_text(collapsed(value));
		}
	}

	void read_headers(request *into, std::string_view head, size_t at)
	{
		while (head.substr(at) != "\r\n") {
			size_t end = at;
			for (;;) {
				end = head.find("\r\n", end);
				if (end == std::string_view::npos)
					throw malformed{into->version};
				bool folded = end + 2 < head.size() &&
					      (head[end + 2] == ' ' || head[end + 2] == '\t');
				if (!folded)
					break;
				end += 2;
			}
			read_header(into, std::string(head.substr(at, end - at)));
			at = end + 2;
		}
	}

	// Takes one request off the front; false if it is not complete.
	bool step()
	{
		if (!head_) {
			rx_.erase(0, std::min(rx_.find_first_not_of("\r\n"), rx_.size()));
			if (rx_.empty())
				return false;
			if (rx_.size() >= limit)
				throw malformed{0};
			size_t end = rx_.find("\r\n\r\n");
			if (end == std::string::npos)
				return false;
			head_length_ = end + 4;
			body_length_ = 0;
			has_length_ = false;
			std::string_view head = std::string_view(rx_).substr(0, head_length_);
			request seen;
			read_headers(&seen, head, read_request_line(&seen, head));
			head_ = seen;
		}
		if (rx_.size() < head_length_ + body_length_)
			return false;
		head_->body = rx_.substr(head_length_, body_length_);
		answers_ += describe(*head_);
		closed_ = head_->close || head_->version == 0;
		rx_.erase(0, head_length_ + body_length_);
		head_.reset();
		return !closed_;
	}

public:
	// Bytes that arrive together, and of which the server knows nothing before it has them all.
	void receive(std::string_view bytes)
	{
		if (closed_)
			return;
		rx_ += bytes;
		try {
			while (step())
				;
		} catch (const malformed &what) {
			answers_ += error_answer(what.version, 400);
			closed_ = true;
		}
	}
	const std::string &answers() const { return answers_; }
	bool closed() const { return closed_; }
};

// What a request of the corpus leads to, by hand.
enum class outcome {
	kept,        // handled; the connection stays open
	closed,      // handled; the connection is closed
	refused_1_0, // answered 400 with an HTTP/1.0 status line
	refused_1_1, // answered 400 with an HTTP/1.1 status line
	unfinished   // nothing happens: more is needed
};

struct sample {
	std::string bytes;
	outcome expected;
	bool reads_past_head = false; // its decoded path shows what has arrived after its head
};

inline const std::vector<sample> &corpus()
{
	using enum outcome;
	static const std::vector<sample> all = [] {
		std::vector<sample> list;
		auto add = [&](const std::string &bytes, outcome expected, bool reads_past_head = false) {
			list.push_back({bytes, expected, reads_past_head});
		};

		// Methods: any token will do, a space must follow it in the line.
		struct {
			std::string text;
			outcome expected;
		} methods[] = {{"GET", kept}, {"POST", kept}, {"PUT", kept}, {"HEAD", kept}, {"DELETE", kept},
			{"OPTIONS", kept}, {"get", kept}, {"Post", kept}, {"G", kept}, {"GET,", kept},
			{"GETX", kept}, {"POSTAL", kept}, {"\x01", kept}, {"M\tT", kept}, {"\xff\xfe", kept},
			{"\0"s, kept}, {"VERY-LONG-METHOD-NAME-INDEED", kept}};
		// Targets.
		struct {
			std::string text;
			bool good;
		} targets[] = {{"/", true}, {"/a", true}, {"//", true}, {"/?", true}, {"/?a", true},
			{"/??", true}, {"/a?b=c&d=e", true}, {"/a/b/c/", true}, {"/a#b", true},
			{"/\x01\x7f\xff", true}, {"/\t", true}, {"/a\0b"s, true}, {"/..", true},
			{"/a+b", true}, {"/%", true}, {"/%4", true}, {"/%41", true}, {"/%zz", true},
			{"/%00x", true}, {"/%%%", true}, {"/a%20b", true}, {"/a%20b?c%20d", true},
			{"/%41%42%43", true}, {"/+%2b+", true}, {"http://host", true}, {"http://a", true},
			{"http://host/", true}, {"http://host/p?q", true}, {"http://host?q", true},
			{"http:///", true}, {"http:///x?y", true}, {"http://user@host:80/p", true},
			{"http://host?q/p", true}, {"https://a", true}, {"https:///", true},
			{"https://host", true}, {"https://host/p?q", true}, {"https://host:443/%41", true},
			{"http://h//", true}, {"http://%41/%41", true}, {"*", false}, {"a", false},
			{"?", false}, {"?a=b", false}, {"host", false}, {"host:80", false},
			{"host/path", false}, {"host/longer/path", false}, {"http:/", false},
			{"http://", false}, {"https://", false}, {"http:/host/path", false},
			{"HTTP://host/", false}, {"Http://host/", false}, {"httpx://host/", false},
			{"ftp://host/", false}, {"https:/host/", false}, {"HTTPS://host/", false},
			{"ttp://host/path", false}, {"\\path\\to\\it", false}, {"\thttp://host/", false},
			{"%2fabcdefgh", false}};
		// Versions, with what stands before and after them.
		struct {
			std::string text;
			outcome expected;
		} versions[] = {{" HTTP/1.1", kept}, {" HTTP/1.0", closed}, {"  HTTP/1.1", kept},
			{"       HTTP/1.0", closed}, {" HTTP/1.1 ", refused_1_0},
			{" HTTP/1.0\t", refused_1_0}, {" HTTP/1.1\r", refused_1_0},
			{" HTTP/1.2", refused_1_0}, {" HTTP/2.0", refused_1_0}, {" HTTP/1.", refused_1_0},
			{" HTTP/1", refused_1_0}, {" HTTP/1.11", refused_1_0}, {" HTTP/0.9", refused_1_0},
			{" http/1.1", refused_1_0}, {" Http/1.1", refused_1_0}, {"\tHTTP/1.1", refused_1_0},
			{"", refused_1_0}, {" ", refused_1_0}, {" HTTP/1.1 x", refused_1_0},
			{" xHTTP/1.1", refused_1_0}, {" HTTP/1.1\n", refused_1_0},
			{" HTTP/1.1\0"s, refused_1_0}, {" \0HTTP/1.1"s, refused_1_0},
			{" /b HTTP/1.1", refused_1_0}, {" ICY/1.1", refused_1_0}};
		// Header lines, and bodies that belong to them.
		struct {
			std::string text;
			char expected; // 'k'ept, 'c'losed, 'r'efused
			std::string body;
		} headers[] = {{"", 'k', ""}, {"Host: a\r\n", 'k', ""}, {"Host:a\r\n", 'k', ""},
			{"Host: \r\n", 'k', ""}, {"Host:\t\r\n", 'k', ""}, {"Host:\r\n", 'r', ""},
			{"Host\r\n", 'r', ""}, {":\r\n", 'r', ""}, {": \r\n", 'k', ""}, {":v\r\n", 'k', ""},
			{"::\r\n", 'k', ""}, {" Host: a\r\n", 'k', ""}, {"Host : a\r\n", 'k', ""},
			{"\tHost: a\r\n", 'k', ""}, {" \r\n", 'r', ""}, {" : \r\n", 'k', ""},
			{"A: b: c\r\n", 'k', ""}, {"X-A:   a \r\n\t b\r\n", 'k', ""},
			{"A: 1\r\n 2\r\n 3\r\n", 'k', ""}, {"A:\r\n b\r\n", 'k', ""},
			{"A:\r\n \r\n", 'k', ""}, {"A\r\n : b\r\n", 'k', ""}, {"A: b\r\n \r\n", 'k', ""},
			{"A: b\r\n\t\t\r\n \t \r\n c\r\n", 'k', ""}, {"A\r\n b\r\n", 'r', ""},
			{"A: a\n b\r\n", 'k', ""}, {"A: a\nB: b\r\n", 'k', ""}, {"A: a\rb\r\n", 'k', ""},
			{"A: a\r\r\n", 'k', ""}, {"A: \v\f a \v\f b \f\v\r\n", 'k', ""},
			{"A: a\t\tb  c \t d\r\n", 'k', ""}, {"A: 1\r\nA: 2\r\n", 'k', ""},
			{"A: 1\r\na: 2\r\n", 'k', ""}, {"A: 1\r\nA: \r\n", 'k', ""},
			{"A: 1\r\nB: 2\r\nA: 3\r\nC: 4\r\nB: 5\r\n", 'k', ""}, {"A: x\0y\r\n"s, 'k', ""},
			{"A\0B: x\r\n"s, 'r', ""}, {"A: \0\r\n"s, 'k', ""}, {"A: \xff\x80\x01\r\n", 'k', ""},
			{"A: a\0 \t b\r\n"s, 'k', ""}, {"Transfer-Encoding: chunked\r\n", 'k', ""},
			{"Expect: 100-continue\r\n", 'k', ""}, {"A: 1\r\nbroken\r\n", 'r', ""},
			{"A: 1\r\nB:\r\n", 'r', ""}, {"GET / HTTP/1.1\r\n", 'r', ""}, {"A\n: b\r\n", 'k', ""},
			{"\r: b\r\n", 'k', ""}, {"\n\r\n", 'r', ""}, {"Connection: close\r\n", 'c', ""},
			{"Connection:close\r\n", 'c', ""}, {"Connection: \t close \r\n", 'c', ""},
			{"Connection:\r\n close\r\n", 'c', ""}, {"Connection: Close\r\n", 'k', ""},
			{"Connection: CLOSE\r\n", 'k', ""}, {"Connection: close, x\r\n", 'k', ""},
			{"Connection: closed\r\n", 'k', ""}, {"Connection: clos\r\n", 'k', ""},
			{"Connection: keep-alive\r\n", 'k', ""}, {"Connection: close\0\r\n"s, 'k', ""},
			{"Connection: cl\r\n ose\r\n", 'k', ""}, {"Connection: \r\n", 'r', ""},
			{"Connection:\r\n", 'r', ""}, {"Connection:\r\n \r\n", 'r', ""},
			{"connection: close\r\n", 'k', ""}, {"CONNECTION: close\r\n", 'k', ""},
			{"Connection : close\r\n", 'k', ""}, {" Connection: close\r\n", 'k', ""},
			{"Connection: close\r\nConnection: keep-alive\r\n", 'c', ""},
			{"Connection: keep-alive\r\nConnection: close\r\n", 'c', ""},
			{"Connection: close\r\nbroken\r\n", 'r', ""}, {"Content-Length: 0\r\n", 'k', ""},
			{"Content-Length: 5\r\n", 'k', "hello"}, {"Content-Length:5\r\n", 'k', "hello"},
			{"Content-Length: \t5 \r\n", 'k', "hello"},
			{"Content-Length:\r\n 5\r\n", 'k', "hello"}, {"Content-Length: +5\r\n", 'k', "hello"},
			{"Content-Length: 00000000000000000000000005\r\n", 'k', "hello"},
			{"Content-Length: -0\r\n", 'k', ""}, {"Content-Length: 5\0\r\n"s, 'r', ""},
			{"Content-Length: 5\0x\r\n"s, 'r', ""}, {"Content-Length: \0\r\n"s, 'r', ""},
			{"Content-Length: 7\r\n", 'k', "a\0b\r\n\r\n"s},
			{"Content-Length: 3\r\n", 'k', "\r\n\r"},
			{"Content-Length: 9\r\nContent-Length: 4\r\n", 'r', "four"},
			{"Content-Length: 0\r\nContent-Length: 4\r\n", 'r', "four"},
			{"Content-Length: 04\r\nContent-Length: 4\r\n", 'k', "four"},
			{"Content-Length: 4\r\nConnection: close\r\n", 'c', "four"},
			{"Content-Length: 18\r\n", 'k', "GET / HTTP/1.1\r\n\r\n"},
			{"content-length: 5\r\n", 'k', ""}, {"CONTENT-LENGTH: 5\r\n", 'k', ""},
			{"Content-length: x\r\n", 'k', ""}, {"Content-Length : 5\r\n", 'k', ""},
			{"Content-Length2: 5\r\n", 'k', ""}, {"Content-Lengt: 5\r\n", 'k', ""},
			{"Content-Length\0: 5\r\n"s, 'r', ""}, {"Content-Length: \r\n", 'r', ""},
			{"Content-Length:\r\n", 'r', ""}, {"Content-Length:\r\n\t\r\n", 'r', ""},
			{"Content-Length: 12abc\r\n", 'r', ""}, {"Content-Length: abc\r\n", 'r', ""},
			{"Content-Length: 1 2\r\n", 'r', ""}, {"Content-Length: 1\r\n 2\r\n", 'r', ""},
			{"Content-Length: 1,2\r\n", 'r', ""}, {"Content-Length: 0x10\r\n", 'r', ""},
			{"Content-Length: 1.0\r\n", 'r', ""}, {"Content-Length: -1\r\n", 'r', ""},
			{"Content-Length: -66560\r\n", 'r', ""}, {"Content-Length: +\r\n", 'r', ""},
			{"Content-Length: -\r\n", 'r', ""}, {"Content-Length: +-5\r\n", 'r', ""},
			{"Content-Length: 66561\r\n", 'r', ""}, {"Content-Length: 2147483647\r\n", 'r', ""},
			{"Content-Length: 2147483648\r\n", 'r', ""},
			{"Content-Length: 4294967295\r\n", 'r', ""},
			{"Content-Length: 4294967296\r\n", 'r', ""},
			{"Content-Length: 4294967301\r\n", 'r', ""},
			{"Content-Length: 18446744073709551615\r\n", 'r', ""},
			{"Content-Length: 99999999999999999999999999\r\n", 'r', ""},
			{"Content-Length: 5\r\nContent-Length: x\r\n", 'r', ""},
			{"Content-Length: 66560\r\nContent-Length: 66561\r\n", 'r', ""}};

		for (const auto &method : methods)
			add(method.text + " /some/path HTTP/1.1\r\n\r\n", method.expected);
		for (const auto &target : targets)
			for (const char *method : {"GET", "POST", "PATCH"})
				for (const auto *version :
					{&versions[0], &versions[1], &versions[2], &versions[7]}) {
					std::string line = method + " "s + target.text + version->text;
					add(line + "\r\nA: b\r\n\r\n",
						target.good ? version->expected : refused_1_0);
				}
		for (const auto &version : versions)
			for (const char *target : {"/some/path", "http://host/path"})
				add("GET "s + target + version.text + "\r\n\r\n", version.expected);
		for (const auto &header : headers)
			for (const char *start :
				{"GET / HTTP/1.1\r\n", "POST /a?b HTTP/1.0\r\n", "X /%41%20 HTTP/1.1\r\n"}) {
				bool old = strstr(start, "1.0");
				outcome expected = header.expected == 'r' ? (old ? refused_1_0 : refused_1_1)
						   : old || header.expected == 'c' ? closed
										   : kept;
				add(start + header.text + "\r\n" + header.body, expected);
				if (header.expected != 'r' && !header.text.empty())
					add(start + "First: 1\r\n"s + header.text + "Last: 2\r\n\r\n" +
							header.body,
						expected);
			}

		// Spaces, line lengths, and line ends that are not.
		add("GET      /      HTTP/1.1\r\n\r\n", kept);
		add("PUT      /      HTTP/1.1\r\n\r\n", kept);
		add("GET / HTTP/1.0\r\n\r\n", closed);
		add("\r\n\r\nGET / HTTP/1.1\r\n\r\n", kept);
		add("\n\n\r\r\nGET / HTTP/1.1\r\n\r\n", kept);
		add("\r\r\r\r\r\r\r\r\rGET / HTTP/1.0\r\n\r\n", closed);
		add("\r\n\r\nG / HTTP/1.1\r\n\r\n", refused_1_0); // 12 bytes
		add("GE / HTTP/1.1\r\n\r\n", refused_1_0);        // 13 bytes
		add("GET /\r\n\r\n", refused_1_0);
		add("GET / HTTP/1.\r\n\r\n", refused_1_0);
		add("GET / HTTP/1\r\nHTTP/1.1\r\n\r\n", refused_1_0);
		add("x\r\n\r\n", refused_1_0);
		add("GET\r\n\r\n", refused_1_0);
		add(" GET / HTTP/1.1\r\n\r\n", refused_1_0); // the empty method's target is "GET"
		add("\tGET / HTTP/1.1\r\n\r\n", kept);       // a method of its own
		add(" /abc HTTP/1.1\r\n\r\n", kept);         // no method at all
		add("              \r\n\r\n", refused_1_0);
		add("GET           \r\n\r\n", refused_1_0);
		add("GET / HTTP/1.1\n\n", unfinished);
		add("GET / HTTP/1.1\r\n\n", unfinished);
		add("GET / HTTP/1.1\n\r\n\r\n", refused_1_0);
		add("GETHTTPSLASHONE\r\n\r\n", refused_1_0);
		add("NOSPACEHEREATALL\r\nA: b HTTP/1.1\r\n\r\n", refused_1_0);
		add("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03 a b c d\r\n\r\n"s, refused_1_0);
		// The target's space, and the version, are looked for in the whole head.
		add("GET /0123456789\r\nX: HTTP/1.1\r\n\r\n", kept);
		add("GET /0123456789\r\nX: HTTP/1.0\r\nA: b\r\n\r\n", closed);
		add("GET           \r\nX: HTTP/1.1\r\n\r\n", refused_1_0);
		add("GET /0123456789\r\nHost: example\r\n\r\n", refused_1_0);
		add("PUT          http://\r\nhost HTTP/1.1\r\n\r\n", kept);
		// What an escape brings into the decoded path may lie after the head.
		add("GET /%41%41%41%41%41%41%41%41%41 HTTP/1.1\r\n\r\n", kept, true);
		add("GET /%%%41%41%41%41%41%41%41%41%41%41%41%41 HTTP/1.1\r\n\r\n", kept, true);
		add("POST /%41%41%41%41%41%41%41%41%41 HTTP/1.1\r\nContent-Length: 9\r\n\r\n%42%43xyz", kept,
			true);
		add("GET /" + std::string(300, '%') + " HTTP/1.0\r\n\r\n", closed, true);
		// Unfinished ones.
		for (const char *part : {"G", "GET", "GET ", "GET /", "GET / HTTP/1.1", "GET / HTTP/1.1\r",
			     "\r\n", "\r\n\r\n\r\n", "GET / HTTP/1.1\r\n", "GET / HTTP/1.1\r\n\r",
			     "GET / HTTP/1.1\r\nA: b\r\n", "GET  HTTP/9.9\r\n", "nonsense",
			     "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n",
			     "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nhell",
			     "GET / HTTP/1.0\r\nContent-Length: 1\r\n\r\n",
			     "GET / HTTP/1.1\r\nContent-Length: 66560\r\n\r\n"})
			add(part, unfinished);
		return list;
	}();
	return all;
}

// How the bytes of a request, or of several, arrive.
inline std::vector<std::string> in_one_piece(const std::string &bytes)
{
	return {bytes};
}

inline std::vector<std::string> byte_by_byte(const std::string &bytes)
{
	std::vector<std::string> pieces;
	for (char c : bytes)
		pieces.push_back(std::string(1, c));
	return pieces;
}

inline std::vector<std::string> in_random_pieces(const std::string &bytes, std::mt19937 *random)
{
	std::vector<std::string> pieces;
	for (size_t at = 0; at < bytes.size();) {
		size_t length = 1 + (*random)() % ((*random)() % 4 == 0 ? 40 : 7);
		pieces.push_back(bytes.substr(at, length));
		at += length;
	}
	return pieces;
}

} // namespace http_test
