// The HTTP server over real sockets, one behaviour a test; the corpus and curl are in httpd_system_test.cc.
#include <limits.h>
#include <linux/sockios.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <iterator>
#include <set>

#include <gmock/gmock.h>

#include "lib/log.h"
#include "tests/support/http_client.h"
#include "tests/support/memory.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#endif

using namespace http_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

// No pointer that is stale happens to be right.
[[maybe_unused]] static const bool always_moving = memory.moves = true;

static std::string repeated(const std::string &text, size_t count)
{
	std::string result;
	while (count-- > 0)
		result += text;
	return result;
}

// Bytes that show where something is missing or out of order.
static std::string pattern(size_t length)
{
	std::string text(length, '\0');
	for (size_t i = 0; i < length; ++i)
		text[i] = static_cast<char>('!' + (static_cast<uint32_t>(i) * 2654435761u >> 16) % 90);
	return text;
}

static const std::string bad_request_1_0 = "HTTP/1.0 400 Bad Request\r\n"
					   "Server: kvhttpd\r\n"
					   "Pragma: no-cache\r\n"
					   "Expires: 0\r\n"
					   "Content-Type: text/html\r\n"
					   "Content-Length: 64\r\n"
					   "\r\n"
					   "<html><body><h1>400 - Bad Request</h1><p>Error</p></body></html>";
static const std::string bad_request_1_1 = "HTTP/1.1" + bad_request_1_0.substr(8);

// ---------------------------------------------------------------------------------------------------------
// The request line.

using httpd_request_line = server_test;

TEST_F(httpd_request_line, blank_lines_before_a_request_are_skipped)
{
	request seen = only_request("\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	EXPECT_EQ(seen.method, HTTPD_METHOD_GET);
	EXPECT_EQ(seen.target, "/");
	EXPECT_EQ(seen.version, 1);
}

TEST_F(httpd_request_line, any_mixture_of_cr_and_lf_is_skipped_before_a_request)
{
	EXPECT_EQ(only_request("\n\r\r\n\n\nGET /x HTTP/1.1\r\n\r\n").target, "/x");
}

TEST_F(httpd_request_line, blank_lines_alone_are_consumed_and_answered_with_nothing)
{
	client far = connect();
	far.send("\r\n\r\n\n");
	EXPECT_EQ(newest()->stream.rx->length, 0);
	EXPECT_EQ(newest()->state, HTTPD_STATE_IDLE);
	far.receive();
	EXPECT_EQ(far.got, "");
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_request_line, blank_lines_between_pipelined_requests_are_skipped)
{
	ask("GET /1 HTTP/1.1\r\n\r\n\r\n\n\rGET /2 HTTP/1.1\r\n\r\n");
	ASSERT_EQ(requests.size(), 2u);
	EXPECT_EQ(requests[1].target, "/2");
}

TEST_F(httpd_request_line, get_post_and_other_methods_are_told_apart_by_their_exact_token)
{
	EXPECT_EQ(only_request("GET /abc HTTP/1.1\r\n\r\n").method, HTTPD_METHOD_GET);
	EXPECT_EQ(only_request("POST /abc HTTP/1.1\r\n\r\n").method, HTTPD_METHOD_POST);
	for (const char *other : {"HEAD", "PUT", "get", "Post", "GETS", "POSTS", "G", "\x80"})
		EXPECT_EQ(only_request(other + " /abcdef HTTP/1.1\r\n\r\n"s).method, HTTPD_METHOD_OTHER)
			<< other;
}

TEST_F(httpd_request_line, an_unknown_method_reaches_the_handler)
{
	request seen = only_request("BREW /pot HTTP/1.1\r\n\r\n");
	EXPECT_EQ(seen.method, HTTPD_METHOD_OTHER);
	EXPECT_EQ(seen.target, "/pot");
}

TEST_F(httpd_request_line, a_line_of_14_bytes_is_the_shortest)
{
	EXPECT_EQ(only_request("GET / HTTP/1.1\r\n\r\n").target, "/");
	EXPECT_EQ(ask("XY / HTTP/1.1\r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(ask("GET /\r\nHTTP/1.1\r\n\r\n"), bad_request_1_0);
}

TEST_F(httpd_request_line, a_line_without_a_space_is_refused)
{
	EXPECT_EQ(ask("ABCDEFGHIJKLMNOP\r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(ask("ABCDEFGHIJKLMNOP\r\nA: / HTTP/1.1\r\n\r\n"), bad_request_1_0);
}

TEST_F(httpd_request_line, a_target_that_no_space_ends_is_refused)
{
	EXPECT_EQ(ask("GET /abcdefghijk\r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(ask("GET              \r\n\r\n"), bad_request_1_0);
}

TEST_F(httpd_request_line, the_end_of_the_target_is_looked_for_beyond_the_request_line)
{
	request seen = only_request("GET /0123456789\r\nX: HTTP/1.1\r\nA: b\r\n\r\n");
	EXPECT_EQ(seen.target, "/0123456789\r\nX:");
	EXPECT_THAT(seen.headers, ElementsAre(Pair("A", "b")));
}

TEST_F(httpd_request_line, any_number_of_spaces_separates_its_parts)
{
	request seen = only_request("GET     /a      HTTP/1.0\r\n\r\n");
	EXPECT_EQ(seen.target, "/a");
	EXPECT_EQ(seen.version, 0);
	EXPECT_EQ(only_request("PUT     /a      HTTP/1.1\r\n\r\n").target, "/a");
}

TEST_F(httpd_request_line, a_tab_separates_nothing)
{
	EXPECT_EQ(ask("GET\t/abcdef\tHTTP/1.1\r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(ask("GET /abcdef\tHTTP/1.1\r\n\r\n"), bad_request_1_0);
}

TEST_F(httpd_request_line, a_path_and_its_query_are_split_at_the_first_question_mark)
{
	request seen = only_request("GET /a/b?c=d?e HTTP/1.1\r\n\r\n");
	EXPECT_EQ(seen.target, "/a/b?c=d?e");
	EXPECT_EQ(seen.path, "/a/b");
	EXPECT_EQ(seen.query, "?c=d?e");
	EXPECT_EQ(seen.host, std::nullopt);
	EXPECT_EQ(seen.decoded_path, "/a/b");
}

TEST_F(httpd_request_line, a_target_without_a_question_mark_has_no_query)
{
	EXPECT_EQ(only_request("GET /a HTTP/1.1\r\n\r\n").query, std::nullopt);
}

TEST_F(httpd_request_line, a_lone_question_mark_is_a_query_of_one_byte)
{
	request seen = only_request("GET /? HTTP/1.1\r\n\r\n");
	EXPECT_EQ(seen.path, "/");
	EXPECT_EQ(seen.query, "?");
}

TEST_F(httpd_request_line, an_absolute_target_names_a_host)
{
	request seen = only_request("GET http://host:80/p/q?r HTTP/1.1\r\n\r\n");
	EXPECT_EQ(seen.target, "http://host:80/p/q?r");
	EXPECT_EQ(seen.host, "host:80");
	EXPECT_EQ(seen.path, "/p/q");
	EXPECT_EQ(seen.query, "?r");
	EXPECT_EQ(seen.decoded_path, "/p/q");
	EXPECT_EQ(only_request("GET https://host/p HTTP/1.1\r\n\r\n").host, "host");
}

TEST_F(httpd_request_line, a_host_alone_leaves_the_path_unset_and_decodes_to_a_slash)
{
	request seen = only_request("GET http://host HTTP/1.1\r\n\r\n");
	EXPECT_EQ(seen.host, "host");
	EXPECT_EQ(seen.path, std::nullopt);
	EXPECT_EQ(seen.query, std::nullopt);
	EXPECT_EQ(seen.decoded_path, "/");
}

TEST_F(httpd_request_line, a_question_mark_in_a_host_without_a_path_starts_no_query)
{
	request seen = only_request("GET http://host?a=b HTTP/1.1\r\n\r\n");
	EXPECT_EQ(seen.host, "host?a=b");
	EXPECT_EQ(seen.query, std::nullopt);
}

TEST_F(httpd_request_line, an_absolute_target_with_an_empty_host_has_none)
{
	request seen = only_request("GET http:///p HTTP/1.1\r\n\r\n");
	EXPECT_EQ(seen.host, std::nullopt);
	EXPECT_EQ(seen.path, "/p");
	EXPECT_EQ(only_request("GET https:///p HTTP/1.1\r\n\r\n").host, std::nullopt);
}

TEST_F(httpd_request_line, an_absolute_target_has_at_least_8_bytes_and_with_https_more)
{
	EXPECT_EQ(ask("GET http:// HTTP/1.1\r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(ask("GET https:// HTTP/1.1\r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(only_request("GET http://a HTTP/1.1\r\n\r\n").host, "a");
	EXPECT_EQ(only_request("GET https://a HTTP/1.1\r\n\r\n").host, "a");
}

TEST_F(httpd_request_line, other_forms_of_target_are_refused)
{
	for (const char *target :
		{"*", "?", "host", "host:443", "ftp://host/a", "HTTP://host/", "http:/host/path"})
		EXPECT_EQ(ask("GET "s + target + " HTTP/1.1\r\n\r\n"), bad_request_1_0) << target;
}

TEST_F(httpd_request_line, the_version_is_1_0_or_1_1_and_nothing_else)
{
	EXPECT_EQ(only_request("GET / HTTP/1.0\r\n\r\n").version, 0);
	EXPECT_EQ(only_request("GET / HTTP/1.1\r\n\r\n").version, 1);
	for (const char *version :
		{"HTTP/1.2", "HTTP/2.0", "HTTP/0.9", "http/1.1", "HTTP/1.10", "HTTPS/1.1", "x"})
		EXPECT_EQ(ask("GET /abcdefgh "s + version + "\r\n\r\n"), bad_request_1_0) << version;
}

TEST_F(httpd_request_line, nothing_stands_between_the_version_and_the_line_end)
{
	EXPECT_EQ(ask("GET /a HTTP/1.1 \r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(ask("GET /a HTTP/1.1\r\r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(ask("GET /a HTTP/1.1\n\r\n\r\n"), bad_request_1_0);
}

TEST_F(httpd_request_line, a_head_that_ends_before_the_version_is_refused)
{
	EXPECT_EQ(ask("GET /abcdefghij \r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(ask("GET /abcdefghij HTTP/1.\r\n\r\n"), bad_request_1_0);
}

TEST_F(httpd_request_line, the_first_header_starts_behind_it_and_the_head_ends_behind_the_blank_line)
{
	std::string bytes = "GET /a?b HTTP/1.1\r\nA: b\r\n\r\n";
	int32_t head_len = 0;
	std::string head;
	on_request = [&](httpd_conn *conn) {
		head_len = conn->head_len;
		head.assign(conn->head_start, conn->head_end);
		return 1;
	};
	ask(bytes + "GET /behind HTTP/1.1\r\n\r\n");
	ask("\r\n\r\n" + bytes);
	EXPECT_EQ(head_len, static_cast<int32_t>(bytes.size())); // the skipped lines do not count
	EXPECT_EQ(head, "A: b\r\n\r\n");
}

TEST_F(httpd_request_line, a_refusal_closes_the_connection_and_what_follows_is_not_looked_at)
{
	client far = connect();
	far.send("GET /a HTTP/1.2\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, bad_request_1_0);
	EXPECT_TRUE(far.ended());
	EXPECT_FALSE(far.was_reset());
	EXPECT_THAT(requests, IsEmpty());
	EXPECT_EQ(connection_count(), 0);
}

// ---------------------------------------------------------------------------------------------------------
// The decoded path.

using httpd_decoded_path = server_test;

TEST_F(httpd_decoded_path, escapes_and_plus_signs_are_decoded)
{
	EXPECT_EQ(only_request("GET /+a+b HTTP/1.1\r\n\r\n").decoded_path, "/ a b");
	EXPECT_EQ(only_request("GET /%41%00 HTTP/1.1\r\n\r\n").decoded_path, "/A");
}

TEST_F(httpd_decoded_path, each_escape_brings_two_of_the_bytes_that_follow)
{
	EXPECT_EQ(only_request("GET /a%20b HTTP/1.1\r\n\r\n").decoded_path, "/a b H");
	EXPECT_EQ(only_request("GET /a%20b?query HTTP/1.1\r\n\r\n").decoded_path, "/a b?q");
	EXPECT_EQ(only_request("GET /%41?%42%43xyz HTTP/1.1\r\n\r\n").decoded_path, "/A?");
}

TEST_F(httpd_decoded_path, an_escape_cut_off_by_the_end_of_the_path_loses_its_percent_sign)
{
	EXPECT_EQ(only_request("GET /% HTTP/1.1\r\n\r\n").decoded_path, "/");
	EXPECT_EQ(only_request("GET /%4 HTTP/1.1\r\n\r\n").decoded_path, "/4");
}

TEST_F(httpd_decoded_path, it_goes_on_into_what_has_arrived_behind_the_head)
{
	std::string head = "POST /%41%41%41%41%41%41%41%41%41 HTTP/1.1\r\n\r\n";
	std::string decoded = "/AAAAAAAAA HTTP/1.1\r\n\r\n";
	EXPECT_EQ(only_request(head).decoded_path, decoded);
	ask(head + "POST /next HTTP/1.1\r\n\r\n");
	EXPECT_EQ(requests[1].decoded_path, decoded + "POST ");
}

TEST_F(httpd_decoded_path, behind_what_has_been_received_it_ends)
{
	client far = connect();
	far.send("POST /" + repeated("%41", 40) +
		 " HTTP/1.1\r\nContent-Length: 3\r\n\r\n"); // the body comes after the path was decoded
	far.send("abc");
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_EQ(
		requests[0].decoded_path, "/" + repeated("A", 40) + " HTTP/1.1\r\nContent-Length: 3\r\n\r\n");
	EXPECT_EQ(requests[0].body, "abc");
}

TEST_F(httpd_decoded_path, bytes_of_a_former_request_never_show)
{
	client far = connect();
	far.send("GET /secret HTTP/1.1\r\nSecret: " + repeated("s", 3000) + "\r\n\r\n");
	far.send("GET /" + repeated("%41", 300) + " HTTP/1.1\r\n\r\n");
	ASSERT_EQ(requests.size(), 2u);
	EXPECT_EQ(requests[1].decoded_path, "/" + repeated("A", 300) + " HTTP/1.1\r\n\r\n");
}

TEST_F(httpd_decoded_path, a_path_of_nothing_but_escapes_reads_only_memory_of_the_server)
{
	for (size_t count : {1, 10, 100, 160, 165, 170, 200, 1000, 22000}) {
		for (const char *escape : {"%41", "%%%41", "%", "%%", "%4", "%%%"}) {
			std::string path = "/" + repeated(escape, count);
			path.resize(std::min<size_t>(path.size(), 66000));
			std::string bytes = "GET " + path + " HTTP/1.0\r\n\r\n";
			std::string expected = model_decode(bytes, 4, path.size());
			EXPECT_EQ(only_request(bytes).decoded_path, expected) << escape << " " << count;
		}
	}
}

TEST_F(httpd_decoded_path, unchecked_digits_are_combined)
{
	EXPECT_EQ(only_request("GET /%zz HTTP/1.1\r\n\r\n").decoded_path,
		"/3 H"); // 35 * 16 | 35, in eight bits
	EXPECT_EQ(only_request("GET /%GG HTTP/1.1\r\n\r\n").decoded_path, "/\x10 H");
}

// ---------------------------------------------------------------------------------------------------------
// Header lines.

using httpd_headers = server_test;

static std::string with_headers(const std::string &lines)
{
	return "GET / HTTP/1.1\r\n" + lines + "\r\n";
}

TEST_F(httpd_headers, a_value_is_found_by_its_name_as_sent)
{
	std::string exact, other_case, missing;
	on_request = [&](httpd_conn *conn) {
		auto get = [&](const char *name) {
			const char *value = httpd_header_table_get(conn, name);
			return value ? value : "(null)";
		};
		exact = get("Host");
		other_case = get("host");
		missing = get("Accept");
		return 1;
	};
	ask(with_headers("Host: example\r\n"));
	EXPECT_EQ(exact, "example");
	EXPECT_EQ(other_case, "(null)");
	EXPECT_EQ(missing, "(null)");
}

TEST_F(httpd_headers, white_space_around_a_value_is_dropped)
{
	EXPECT_THAT(only_request(with_headers("A: \t b \f\v \r\n")).headers, ElementsAre(Pair("A", "b")));
	EXPECT_THAT(only_request(with_headers("A:\n\r b\n\r\n")).headers, ElementsAre(Pair("A", "b")));
	EXPECT_THAT(only_request(with_headers("A:b\r\n")).headers, ElementsAre(Pair("A", "b")));
}

TEST_F(httpd_headers, a_run_of_white_space_inside_a_value_becomes_one_space)
{
	EXPECT_THAT(only_request(with_headers("A: a\t \v\fb  c\rd\ne\r\n")).headers,
		ElementsAre(Pair("A", "a b c d e")));
}

TEST_F(httpd_headers, folded_lines_are_one_header)
{
	EXPECT_THAT(only_request(with_headers("X-A:   a \r\n\t b\r\nB: c\r\n")).headers,
		ElementsAre(Pair("B", "c"), Pair("X-A", "a b")));
	EXPECT_THAT(only_request(with_headers("A:\r\n 1\r\n 2\r\n\t3\r\n")).headers,
		ElementsAre(Pair("A", "1 2 3")));
}

TEST_F(httpd_headers, a_name_is_kept_as_sent)
{
	EXPECT_THAT(only_request(with_headers("x-Y : 1\r\n\tZ: 2\r\n")).headers,
		ElementsAre(Pair("x-Y ", "1 Z: 2")));
	EXPECT_THAT(only_request(with_headers(" first: 1\r\n")).headers, ElementsAre(Pair(" first", "1")));
	EXPECT_THAT(only_request(with_headers(": 1\r\n")).headers, ElementsAre(Pair("", "1")));
}

TEST_F(httpd_headers, the_name_ends_at_the_first_colon)
{
	EXPECT_THAT(only_request(with_headers("A: b: c\r\n")).headers, ElementsAre(Pair("A", "b: c")));
}

TEST_F(httpd_headers, a_line_without_a_colon_is_refused)
{
	EXPECT_EQ(ask(with_headers("Host\r\n")), bad_request_1_1);
	EXPECT_EQ(ask(with_headers("A: b\r\nHost\r\n")), bad_request_1_1);
	EXPECT_EQ(ask(with_headers(" \r\n")), bad_request_1_1);
}

TEST_F(httpd_headers, nothing_after_the_colon_is_refused_but_white_space_is_an_empty_value)
{
	EXPECT_EQ(ask(with_headers("Host:\r\n")), bad_request_1_1);
	EXPECT_THAT(only_request(with_headers("Host: \r\n")).headers, ElementsAre(Pair("Host", "")));
	EXPECT_THAT(only_request(with_headers("Host:\r\n \r\n")).headers, ElementsAre(Pair("Host", "")));
}

TEST_F(httpd_headers, a_refusal_carries_the_version_of_the_request)
{
	EXPECT_EQ(ask("GET / HTTP/1.0\r\nHost\r\n\r\n"), bad_request_1_0);
	EXPECT_EQ(ask("GET / HTTP/1.1\r\nHost\r\n\r\n"), bad_request_1_1);
}

TEST_F(httpd_headers, as_many_as_a_head_holds_are_kept)
{
	client far = connect();
	std::string head = "GET / HTTP/1.1\r\n";
	int count = 0;
	for (; head.size() < HTTPD_REQUEST_BYTES_LIMIT - 20; ++count)
		head += "n" + std::to_string(count) + ":1\r\n";
	int32_t kept = 0;
	on_request = [&](httpd_conn *conn) { return kept = htable_size(conn->headers); };
	far.send(head + "\r\n");
	EXPECT_GT(count, 6000);
	EXPECT_EQ(kept, count);
}

TEST_F(httpd_headers, names_made_to_collide_are_refused)
{
	std::string lines;
	int count = 0;
	for (int i = 0; count < 600; ++i) {
		std::string name = "n" + std::to_string(i);
		if (fnv_32_str(name.c_str(), 0) % 1021 != 7) // their slot while the table has 1024
			continue;
		lines += name + ":1\r\n";
		++count;
	}
	EXPECT_EQ(ask(with_headers(lines)), bad_request_1_1);
	EXPECT_THAT(requests, IsEmpty());
}

TEST_F(httpd_headers, of_a_repeated_name_the_last_value_counts)
{
	EXPECT_THAT(only_request(with_headers("A: 1\r\nB: x\r\nA: 2\r\n")).headers,
		ElementsAre(Pair("A", "2"), Pair("B", "x")));
}

TEST_F(httpd_headers, names_in_different_case_are_different_headers)
{
	EXPECT_THAT(only_request(with_headers("A: 1\r\na: 2\r\n")).headers,
		ElementsAre(Pair("A", "1"), Pair("a", "2")));
}

TEST_F(httpd_headers, a_zero_byte_ends_what_can_be_seen_of_a_value)
{
	EXPECT_THAT(only_request(with_headers("A: b\0c\r\nD: f\r\n"s)).headers,
		ElementsAre(Pair("A", "b"), Pair("D", "f")));
}

TEST_F(httpd_headers, a_zero_byte_in_a_name_is_refused)
{
	for (const std::string &name : {"Host\0"s, "\0"s, "D\0E"s, "Content-Length\0"s, "Connection\0"s})
		EXPECT_EQ(ask(with_headers("A: b\r\n" + name + ": 5\r\n")), bad_request_1_1);
	EXPECT_THAT(requests, IsEmpty());
}

TEST_F(httpd_headers, hundreds_of_headers_are_kept)
{
	std::string lines;
	for (int i = 0; i < 1000; ++i)
		lines += "Name-" + std::to_string(i) + ": value " + std::to_string(i) + "\r\n";
	request seen = only_request(with_headers(lines));
	EXPECT_EQ(seen.headers.size(), 1000u);
	EXPECT_EQ(seen.headers["Name-999"], "value 999");
}

TEST_F(httpd_headers, content_length_and_connection_are_not_in_the_table)
{
	request seen = only_request("POST / HTTP/1.1\r\nContent-Length: 2\r\nConnection: close\r\n\r\nab");
	EXPECT_THAT(seen.headers, IsEmpty());
	EXPECT_TRUE(seen.close);
	EXPECT_EQ(seen.body, "ab");
}

TEST_F(httpd_headers, in_another_spelling_of_case_they_are_ordinary_headers_without_effect)
{
	client far = connect();
	far.send("POST / HTTP/1.1\r\ncontent-length: 5\r\nCONNECTION: close\r\n\r\n");
	far.drain();
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_THAT(
		requests[0].headers, ElementsAre(Pair("CONNECTION", "close"), Pair("content-length", "5")));
	EXPECT_EQ(requests[0].body, "");
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_headers, a_chunked_body_is_not_known)
{
	client far = connect();
	far.send("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_THAT(requests[0].headers, ElementsAre(Pair("Transfer-Encoding", "chunked")));
	EXPECT_EQ(requests[0].body, "");
}

TEST_F(httpd_headers, an_expectation_is_a_header_like_any_other)
{
	client far = connect();
	far.send("POST / HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, ""); // no interim answer
	far.send("x");
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_THAT(requests[0].headers, ElementsAre(Pair("Expect", "100-continue")));
}

// ---------------------------------------------------------------------------------------------------------
// The body, and what bounds a request.

using httpd_body = server_test;

static std::string with_length(const std::string &value)
{
	return "POST / HTTP/1.1\r\nContent-Length:" + value + "\r\n\r\n";
}

TEST_F(httpd_body, has_the_announced_length)
{
	EXPECT_EQ(only_request(with_length(" 5") + "hello").body, "hello");
	EXPECT_EQ(only_request(with_length(" 0")).body, "");
	EXPECT_EQ(only_request(with_length(" 7") + "a\0b\r\n\r\n"s).body, "a\0b\r\n\r\n"s);
}

TEST_F(httpd_body, is_awaited_for_every_method)
{
	for (const char *method : {"GET", "POST", "DELETE"})
		EXPECT_EQ(only_request(method + " / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"s).body, "abc")
			<< method;
}

TEST_F(httpd_body, is_empty_without_an_announced_length)
{
	request seen = only_request("POST / HTTP/1.1\r\n\r\n");
	EXPECT_EQ(seen.body, "");
}

TEST_F(httpd_body, the_handler_is_not_called_before_it_is_complete)
{
	client far = connect();
	far.send(with_length(" 5") + "hell");
	EXPECT_THAT(requests, IsEmpty());
	EXPECT_EQ(newest()->state, HTTPD_STATE_BODY);
	EXPECT_EQ(newest()->content_length, 5u);
	far.send("o");
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_EQ(requests[0].body, "hello");
}

TEST_F(httpd_body, every_field_is_right_when_the_body_came_in_pieces)
{
	client far = connect();
	std::string head = "POST http://host/path?query HTTP/1.1\r\nContent-Length: 66560\r\nA: b\r\n\r\n";
	std::string body = pattern(66560);
	far.send(head);
	for (size_t at = 0; at < body.size(); at += 3331)
		far.send(body.substr(at, 3331));
	ASSERT_EQ(requests.size(), 1u); // the handler found them consistent
	model expected;
	expected.receive(head + body.substr(0, 10));
	expected.receive(body.substr(10));
	far.drain();
	EXPECT_EQ(far.got, expected.answers());
}

TEST_F(httpd_body, the_largest_length_is_66560)
{
	std::string body = pattern(66560);
	client far = connect();
	far.send(with_length(" 66560"));
	far.send(body);
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_TRUE(requests[0].body == body);
	EXPECT_EQ(ask(with_length(" 66561")), bad_request_1_1);
}

TEST_F(httpd_body, a_sign_and_leading_zeros_may_precede_the_length)
{
	EXPECT_EQ(only_request(with_length(" +5") + "hello").body, "hello");
	EXPECT_EQ(only_request(with_length(" 0000000000000000000000000000005") + "hello").body, "hello");
}

TEST_F(httpd_body, a_length_that_is_no_number_in_range_is_refused)
{
	for (const char *value : {" 12abc", " abc", " 1 2", " 0x1", " 1.5", " -", " +", " -1", " 66561",
		     " 2147483648", " 4294967296", " 4294967301", " 99999999999999999999999",
		     " -99999999999999999999999"})
		EXPECT_EQ(ask(with_length(value)), bad_request_1_1) << value;
}

TEST_F(httpd_body, an_empty_length_is_refused)
{
	EXPECT_EQ(ask(with_length("")), bad_request_1_1);
	EXPECT_EQ(ask(with_length(" \t ")), bad_request_1_1);
	EXPECT_EQ(ask(with_length("\r\n ")), bad_request_1_1);
}

TEST_F(httpd_body, a_length_with_a_zero_byte_is_refused)
{
	EXPECT_EQ(ask(with_length(" 5\0"s) + "hello"), bad_request_1_1);
	EXPECT_EQ(ask(with_length(" 5\0junk"s) + "hello"), bad_request_1_1);
	EXPECT_EQ(ask(with_length(" \0"s)), bad_request_1_1);
}

TEST_F(httpd_body, several_lengths_must_be_right_and_of_the_same_number)
{
	auto with_lengths = [](const std::string &first, const std::string &second) {
		return "POST / HTTP/1.1\r\nContent-Length: " + first + "\r\nContent-Length: " + second +
		       "\r\n\r\nab";
	};
	EXPECT_EQ(only_request(with_lengths("2", "2")).body, "ab");
	EXPECT_EQ(only_request(with_lengths("2", "+02")).body, "ab");
	requests.clear();
	for (const char *other : {"9", "0", "x", ""})
		for (bool comes_first : {false, true})
			EXPECT_EQ(ask(comes_first ? with_lengths(other, "2") : with_lengths("2", other)),
				bad_request_1_1)
				<< other;
	EXPECT_THAT(requests, IsEmpty());
}

TEST_F(httpd_body, the_length_of_a_former_request_does_not_bind_the_next)
{
	client far = connect();
	for (const char *length : {" 2", " 0", " 1"})
		far.send(with_length(length) + "abcd"s.substr(0, static_cast<size_t>(length[1] - '0')));
	ASSERT_EQ(requests.size(), 3u);
	EXPECT_EQ(requests[2].body, "a");
}

TEST_F(httpd_body, a_refused_length_is_answered_at_once)
{
	client far = connect();
	far.send(with_length(" 66561"));
	far.drain();
	EXPECT_EQ(far.got, bad_request_1_1);
	EXPECT_TRUE(far.ended());
	EXPECT_THAT(requests, IsEmpty());
}

using httpd_limits = server_test;

// A request whose head has exactly `length` bytes.
static std::string head_of(size_t length, const std::string &more = "")
{
	std::string start = "POST / HTTP/1.1\r\n" + more + "Fill: ";
	return start + std::string(length - start.size() - 4, 'f') + "\r\n\r\n";
}

TEST_F(httpd_limits, the_largest_head_has_66560_bytes)
{
	client far = connect();
	far.send(head_of(66560));
	far.drain();
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_EQ(requests[0].headers["Fill"].size(), 66560u - 23 - 4);
	EXPECT_FALSE(far.ended());
	EXPECT_EQ(ask(head_of(66561)), bad_request_1_0);
}

TEST_F(httpd_limits, what_is_received_with_a_head_counts)
{
	std::string bytes = "GET / HTTP/1.1\r\nX: 1\r\n\r\n";
	EXPECT_EQ(ask(bytes + std::string(66561 - bytes.size(), 'x')), bad_request_1_0);
	EXPECT_THAT(requests, IsEmpty());
	EXPECT_THAT(ask(bytes + std::string(66560 - bytes.size(), 'x')), StartsWith("{0 1.1"));
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_limits, line_ends_skipped_before_a_request_do_not_count)
{
	std::string bytes = "GET / HTTP/1.1\r\nX: 1\r\n\r\n";
	EXPECT_EQ(only_request(repeated("\r\n", 40000) + bytes).target, "/");
}

TEST_F(httpd_limits, bytes_without_an_end_of_head_are_refused_when_the_limit_is_reached)
{
	client far = connect();
	far.send(std::string(66560, 'x'));
	far.drain();
	EXPECT_EQ(far.got, "");
	far.send("x");
	far.drain();
	EXPECT_EQ(far.got, bad_request_1_0);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_limits, pipelined_bytes_behind_a_request_count_for_the_next)
{
	std::string first = "GET /first HTTP/1.1\r\n\r\n";
	client far = connect();
	on_request = [](httpd_conn *conn) {
		write_text(conn, "served\n");
		return 1;
	};
	far.send(first + std::string(66560 - first.size(), 'x'));
	far.send(std::string(first.size() + 1, 'x'));
	far.drain();
	EXPECT_EQ(far.got, "served\n" + bad_request_1_0);
}

TEST_F(httpd_limits, the_largest_head_and_the_largest_body_make_a_request)
{
	std::string body = pattern(66560);
	client far = connect();
	far.send(head_of(66560, "Content-Length: 66560\r\n"));
	EXPECT_EQ(newest()->state, HTTPD_STATE_BODY);
	far.send(body);
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_TRUE(requests[0].body == body);
	far.send("GET /next HTTP/1.1\r\n\r\n");
	ASSERT_EQ(requests.size(), 2u);
	EXPECT_EQ(requests[1].target, "/next");
}

TEST_F(httpd_limits, a_body_that_arrives_in_full_with_more_behind_it_does_not_count)
{
	client far = connect();
	far.send(head_of(1000, "Content-Length: 66560\r\n"));
	std::string next = "GET /next HTTP/1.1\r\n\r\n";
	far.send(pattern(66560) + repeated(next, 1000));
	EXPECT_EQ(requests.size(), 1001u);
	far.drain();
	EXPECT_FALSE(far.ended());
}

// ---------------------------------------------------------------------------------------------------------
// Keeping and closing connections.

using httpd_keep_alive = server_test;

TEST_F(httpd_keep_alive, an_http_1_1_connection_stays_open_for_the_next_request)
{
	client far = connect();
	for (int turn = 1; turn <= 5; ++turn) {
		far.send("GET / HTTP/1.1\r\n\r\n");
		far.drain();
		EXPECT_EQ(requests.size(), static_cast<size_t>(turn));
		EXPECT_FALSE(far.ended());
	}
}

TEST_F(httpd_keep_alive, connection_close_ends_it_after_the_answer)
{
	client far = connect();
	far.send("GET / HTTP/1.1\r\nConnection: close\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_EQ(far.got, describe(requests[0]));
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_keep_alive, other_values_of_connection_do_not)
{
	for (const char *value : {"Close", "CLOSE", "keep-alive", "close, TE", "closed", "clos"}) {
		client far = connect();
		far.send("GET / HTTP/1.1\r\nConnection: "s + value + "\r\n\r\n");
		far.drain();
		EXPECT_FALSE(far.ended()) << value;
	}
	settle();
}

TEST_F(httpd_keep_alive, a_connection_header_without_a_value_is_refused)
{
	EXPECT_EQ(ask(with_headers("Connection:\r\n")), bad_request_1_1);
	EXPECT_EQ(ask(with_headers("Connection: \r\n")), bad_request_1_1);
}

TEST_F(httpd_keep_alive, close_stays_requested_whatever_a_second_connection_header_says)
{
	EXPECT_TRUE(only_request(with_headers("Connection: close\r\nConnection: keep-alive\r\n")).close);
}

TEST_F(httpd_keep_alive, an_http_1_0_connection_is_always_closed)
{
	client far = connect();
	far.send("GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_keep_alive, pipelined_requests_are_answered_in_order)
{
	client far = connect();
	std::string bytes, expected;
	for (int i = 0; i < 200; ++i)
		bytes += "POST /" + std::to_string(i) + " HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
	far.send(bytes);
	far.drain();
	ASSERT_EQ(requests.size(), 200u);
	for (size_t i = 0; i < requests.size(); ++i) {
		EXPECT_EQ(requests[i].target, "/" + std::to_string(i));
		expected += describe(requests[i]);
	}
	EXPECT_EQ(far.got, expected);
}

TEST_F(httpd_keep_alive, two_requests_sent_at_once_are_answered_from_one_read)
{
	client far = connect();
	far.send_some("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
	evloop_handle_ios(0);
	EXPECT_THAT(requests, IsEmpty()); // never from inside the dispatch of the descriptor
	evloop_handle_timeouts();
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_keep_alive, every_field_of_a_request_is_cleared_after_it)
{
	client far = connect(SOCK_STREAM, 77);
	far.send("POST http://h/p?q HTTP/1.1\r\nA: b\r\nContent-Length: 2\r\n\r\nab");
	ASSERT_EQ(requests.size(), 1u);
	httpd_conn *conn = newest();
	EXPECT_EQ(conn->version, 0);
	EXPECT_EQ(conn->method, 0);
	EXPECT_EQ(conn->target, nullptr);
	EXPECT_EQ(conn->target_len, 0);
	EXPECT_EQ(conn->host, nullptr);
	EXPECT_EQ(conn->host_len, 0);
	EXPECT_EQ(conn->path, nullptr);
	EXPECT_EQ(conn->path_len, 0);
	EXPECT_EQ(conn->query, nullptr);
	EXPECT_EQ(conn->query_len, 0);
	EXPECT_EQ(conn->head_start, nullptr);
	EXPECT_EQ(conn->head_end, nullptr);
	EXPECT_EQ(conn->head_len, 0);
	EXPECT_EQ(conn->body, nullptr);
	EXPECT_EQ(conn->body_len, 0);
	EXPECT_EQ(conn->decoded_path, nullptr);
	EXPECT_EQ(conn->content_length, 0u);
	EXPECT_EQ(conn->close_requested, 0);
	EXPECT_EQ(conn->flags, 0);
	EXPECT_EQ(conn->state, HTTPD_STATE_IDLE);
	EXPECT_EQ(htable_size(conn->headers), 0);
	EXPECT_EQ(conn->stream.rx->length, 0);
	EXPECT_EQ(conn->arg, 77u);
}

TEST_F(httpd_keep_alive, nothing_of_a_request_reaches_the_next)
{
	client far = connect();
	far.send(
		"POST http://host/p?q HTTP/1.1\r\nA: b\r\nContent-Length: 2\r\n\r\nabGET / HTTP/1.1\r\n\r\n");
	ASSERT_EQ(requests.size(), 2u);
	EXPECT_EQ(describe(requests[1]),
		"{0 1.1 target=</> host=none path=</> query=none decoded=</> close=0 body=<>}\n");
}

TEST_F(httpd_keep_alive, a_response_composed_but_not_reset_is_still_there_for_the_next_request)
{
	client far = connect();
	std::vector<int32_t> lengths;
	on_request = [&](httpd_conn *conn) {
		lengths.push_back(buffer_length(conn->res_head));
		buffer_write(conn->res_head, "x", 1);
		return 1;
	};
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	EXPECT_THAT(lengths, ElementsAre(0, 1));
}

TEST_F(httpd_keep_alive, a_result_of_0_closes_after_the_answer)
{
	on_request = [](httpd_conn *conn) {
		write_text(conn, "bye");
		return 0;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "bye");
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_keep_alive, any_other_result_goes_on)
{
	for (int32_t result : {1, 2, -1, -12, INT32_MIN, INT32_MAX}) {
		on_request = [=](httpd_conn *) { return result; };
		client far = connect();
		far.send("GET / HTTP/1.1\r\n\r\n");
		far.drain();
		EXPECT_FALSE(far.ended()) << result;
	}
	settle();
}

TEST_F(httpd_keep_alive, without_a_handler_a_request_closes_the_connection_unanswered)
{
	ctx.handler = nullptr;
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "");
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_keep_alive, without_a_handler_a_malformed_request_is_still_refused)
{
	ctx.handler = nullptr;
	EXPECT_EQ(ask("GET / HTTP/9.9\r\n\r\n"), bad_request_1_0);
}

TEST_F(httpd_keep_alive, the_state_tells_what_a_connection_waits_for)
{
	client far = connect();
	EXPECT_EQ(newest()->state, HTTPD_STATE_IDLE);
	far.send("\r\n");
	EXPECT_EQ(newest()->state, HTTPD_STATE_IDLE);
	far.send("POST / HTTP/1.1\r\n");
	EXPECT_EQ(newest()->state, HTTPD_STATE_REQUEST_LINE);
	far.send("Content-Length: 1\r\n\r\n");
	EXPECT_EQ(newest()->state, HTTPD_STATE_BODY);
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		return 1;
	};
	far.send("x");
	EXPECT_EQ(newest()->state, HTTPD_STATE_DISPATCH);
	httpd_conn *conn = newest();
	httpd_defer_complete(conn, 1);
	EXPECT_EQ(conn->state, HTTPD_STATE_DONE);
	settle();
	EXPECT_EQ(conn->state, HTTPD_STATE_IDLE);
}

// ---------------------------------------------------------------------------------------------------------
// What the handler's writes become.

using httpd_writes = server_test;

TEST_F(httpd_writes, reach_the_peer_while_the_handler_still_runs)
{
	client far = connect(SOCK_SEQPACKET);
	on_request = [&](httpd_conn *conn) {
		for (const char *part :
			{"HTTP/1.1 200 OK\r\n", "Content-Length: 4\r\n", "\r\n", "bo", "dy"}) {
			far.portions.clear();
			EXPECT_EQ(write_text(conn, part), static_cast<int32_t>(strlen(part)));
			far.receive();
			EXPECT_THAT(far.portions, ElementsAre(part));
		}
		return 1;
	};
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_EQ(far.got, "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody");
}

TEST_F(httpd_writes, reach_the_peer_at_once_although_line_ends_or_a_part_of_a_request_wait)
{
	for (const char *behind : {"\r\n", "\n\n\r\n\r\n\r\n", "GET /late HTTP/1.1\r\nHost: x\r\n"}) {
		client far = connect();
		on_request = [&](httpd_conn *conn) {
			write_text(conn, "at once");
			far.receive();
			EXPECT_EQ(far.got, "at once");
			return 1;
		};
		far.send_some("GET / HTTP/1.1\r\n\r\n"s + behind);
		far.drain();
	}
	EXPECT_EQ(requests.size(), 3u);
}

// What serves one request in a process of its own, which its handler ends.
static support::child_result serve_in_child(httpd_ctx *ctx, support::socket_pair *pair)
{
	return support::run_child([=] {
		httpd_accept(pair->near.give(), 0, ctx);
		settle();
		ADD_FAILURE() << "the handler has returned";
	});
}

TEST_F(httpd_writes, are_delivered_by_a_handler_that_ends_the_process)
{
	on_request = [](httpd_conn *conn) -> int32_t {
		write_text(conn, "head ");
		write_text(conn, "body");
		_exit(7);
	};
	support::socket_pair pair;
	ASSERT_TRUE(support::write_all(pair.far.get(), "GET /reboot HTTP/1.1\r\n\r\n"));
	EXPECT_TRUE(serve_in_child(&ctx, &pair).exited_with(7));
	EXPECT_EQ(support::read_available(pair.far.get()), "head body");
}

TEST_F(httpd_writes, are_delivered_by_a_handler_that_becomes_another_program)
{
	on_request = [](httpd_conn *conn) -> int32_t {
		httpd_fail(conn, 1, 404);
		execl("/bin/sh", "sh", "-c", "exit 7", nullptr);
		_exit(1);
	};
	support::socket_pair pair;
	ASSERT_TRUE(support::write_all(pair.far.get(), "GET /upgrade HTTP/1.1\r\n\r\n"));
	EXPECT_TRUE(serve_in_child(&ctx, &pair).exited_with(7));
	EXPECT_EQ(support::read_available(pair.far.get()), error_answer(1, 404));
}

TEST_F(httpd_writes, of_a_whole_run_are_delivered_by_a_last_handler_that_ends_the_process)
{
	for (bool writes : {true, false}) {
		on_request = [=](httpd_conn *conn) -> int32_t {
			std::string target = request_of(conn).target;
			if (target != "/last" || writes)
				write_text(conn, target);
			if (target == "/last")
				_exit(7);
			return 1;
		};
		support::socket_pair pair;
		ASSERT_TRUE(
			support::write_all(pair.far.get(), "GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n"
							   "GET /last HTTP/1.1\r\n\r\n"));
		EXPECT_TRUE(serve_in_child(&ctx, &pair).exited_with(7));
		EXPECT_EQ(support::read_available(pair.far.get()), writes ? "/1/2/last" : "/1/2");
	}
}

TEST_F(httpd_writes, of_a_post_are_delivered_whatever_waits_behind_it)
{
	on_request = [](httpd_conn *conn) -> int32_t {
		write_text(conn, request_of(conn).target);
		if (conn->method == HTTPD_METHOD_POST)
			_exit(7);
		return 1;
	};
	support::socket_pair pair;
	ASSERT_TRUE(support::write_all(pair.far.get(), "GET /1 HTTP/1.1\r\n\r\nPOST /reboot HTTP/1.1\r\n\r\n"
						       "GET /late HTTP/1.1\r\n\r\n"));
	EXPECT_TRUE(serve_in_child(&ctx, &pair).exited_with(7));
	EXPECT_EQ(support::read_available(pair.far.get()), "/1/reboot");
}

TEST_F(httpd_writes, come_before_those_of_a_child_that_is_handed_the_descriptor)
{
	on_request = [](httpd_conn *conn) {
		write_text(conn, "head ");
		pid_t pid = fork();
		if (pid == 0)
			_exit(write(conn->stream.io.fd, "body ", 5) == 5 ? 0 : 1);
		EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
		write_text(conn, "tail");
		return 1;
	};
	EXPECT_EQ(ask("GET / HTTP/1.1\r\n\r\n"), "head body tail");
}

TEST_F(httpd_writes, fail_at_once_when_the_peer_has_gone)
{
	for (bool tcp : {false, true}) {
		client far = tcp ? connect_tcp() : connect();
		on_request = [&](httpd_conn *conn) {
			far.close_with_reset();
			EXPECT_EQ(write_text(conn, "lost"), -1);
			EXPECT_EQ(write_text(conn, "dropped"), 0);
			EXPECT_EQ(conn->stream.state, STREAM_ERROR);
			return 1;
		};
		far.send_some("GET / HTTP/1.1\r\n\r\n");
		EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_writes, of_a_run_of_requests_leave_in_two_sends)
{
	on_request = [](httpd_conn *conn) { return write_text(conn, "answer\n"); };
	client far = connect(SOCK_SEQPACKET);
	far.send(repeated("GET / HTTP/1.1\r\n\r\n", 16));
	far.drain();
	EXPECT_THAT(far.portions, ElementsAre(repeated("answer\n", 15), "answer\n"));
}

TEST_F(httpd_writes, of_a_run_of_requests_with_blank_lines_between_leave_in_two_sends)
{
	on_request = [](httpd_conn *conn) { return write_text(conn, "answer\n"); };
	client far = connect(SOCK_SEQPACKET);
	far.send(repeated("\r\n\nGET / HTTP/1.1\r\n\r\n\r\n", 16));
	far.drain();
	EXPECT_THAT(far.portions, ElementsAre(repeated("answer\n", 15), "answer\n"));
}

TEST_F(httpd_writes, of_the_last_request_go_out_at_once_whatever_waits_behind_it)
{
	for (const char *line : {"HTTP/1.1\r\nConnection: close", "HTTP/1.0"}) {
		client far = connect();
		on_request = [&](httpd_conn *conn) {
			write_text(conn, "at once");
			far.receive();
			EXPECT_EQ(far.got, "at once");
			return 1;
		};
		far.send_some("GET / "s + line + "\r\n\r\nGET /late HTTP/1.1\r\n\r\n");
		far.drain();
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_writes, of_former_requests_are_out_when_the_last_is_handled)
{
	client far = connect();
	on_request = [&](httpd_conn *conn) {
		std::string target = request_of(conn).target;
		if (target == "/2") {
			far.receive();
			EXPECT_EQ(far.got, "/1");
		}
		write_text(conn, target);
		return 1;
	};
	far.send_some("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "/1/2");
}

TEST_F(httpd_writes, of_a_handler_that_defers_are_out_from_then_on)
{
	client far = connect();
	on_request = [&](httpd_conn *conn) {
		write_text(conn, "1");
		httpd_defer(conn);
		far.receive();
		EXPECT_EQ(far.got, "1");
		write_text(conn, "2");
		far.receive();
		EXPECT_EQ(far.got, "12");
		httpd_defer_complete(conn, 0);
		return 0;
	};
	far.send_some("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
}

// The kernel, asked to wait for more, would send them by itself a fifth of a second later.
TEST_F(httpd_writes, over_tcp_do_not_wait_for_a_last_answer_that_is_deferred)
{
	skip_if_emulated("the emulator does not know SIOCOUTQNSD");
	on_request = [](httpd_conn *conn) {
		if (requests.size() == 1)
			return write_text(conn, "first");
		httpd_defer(conn);
		return 1;
	};
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	ASSERT_TRUE(poll_until([] { return requests.size() == 2; }));
	int unsent = -1;
	EXPECT_EQ(ioctl(newest()->stream.io.fd, SIOCOUTQNSD, &unsent), 0);
	EXPECT_EQ(unsent, 0);
	EXPECT_TRUE(poll_until([&] { return far.receive(), far.got == "first"; }));
	httpd_defer_complete(newest(), 0);
	settle();
}

TEST_F(httpd_writes, an_error_page_of_a_handler_leaves_in_one_send)
{
	on_request = [](httpd_conn *conn) { return httpd_fail(conn, 1, 404); };
	client far = connect(SOCK_SEQPACKET);
	far.send("GET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_THAT(far.portions, ElementsAre(error_answer(1, 404)));
}

TEST_F(httpd_writes, an_error_page_leaves_in_one_send)
{
	client far = connect(SOCK_SEQPACKET);
	far.send("GET / HTTP/1.2\r\n\r\n");
	far.drain();
	EXPECT_THAT(far.portions, ElementsAre(bad_request_1_0));
}

TEST_F(httpd_writes, former_answers_leave_although_a_later_one_is_deferred)
{
	on_request = [](httpd_conn *conn) {
		write_text(conn, request_of(conn).target);
		if (requests.size() == 2)
			httpd_defer(conn);
		return 1;
	};
	client far = connect();
	far.send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "/1/2");
	httpd_defer_complete(newest(), 1);
	settle();
}

TEST_F(httpd_writes, many_small_ones_leave_in_order)
{
	std::string expected;
	on_request = [&](httpd_conn *conn) {
		for (int i = 0; i < 20000; ++i) {
			std::string text = std::to_string(i) + ",";
			EXPECT_EQ(write_text(conn, text), static_cast<int32_t>(text.size()));
			expected += text;
		}
		return 1;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_TRUE(far.got == expected);
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_writes, small_and_large_ones_leave_in_order)
{
	std::string expected;
	on_request = [&](httpd_conn *conn) {
		for (size_t length :
			{1u, 100u, 16383u, 16384u, 16385u, 2u, 300'000u, 3u, 0u, 8192u, 8192u, 1u}) {
			std::string text = pattern(length);
			EXPECT_EQ(write_text(conn, text), static_cast<int32_t>(length));
			expected += text;
		}
		EXPECT_EQ(stream_printf(&conn->stream, "%s-%d\n", "formatted", 7), 12);
		expected += "formatted-7\n";
		return 1;
	};
	client far = connect();
	far.send(repeated("GET / HTTP/1.1\r\n\r\n", 3));
	far.drain();
	EXPECT_EQ(requests.size(), 3u);
	EXPECT_TRUE(far.got == expected);
}

TEST_F(httpd_writes, that_are_gathered_are_out_when_they_have_been_flushed)
{
	on_request = [](httpd_conn *conn) {
		write_text(conn, "1");
		static bool flushed;
		flushed = false;
		stream_flush_tx_async(&conn->stream, [](struct stream *) { flushed = true; });
		EXPECT_TRUE(flushed);
		EXPECT_EQ(write(conn->stream.io.fd, "2", 1), 1);
		write_text(conn, "3");
		return 1;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(far.got, "123123");
}

TEST_F(httpd_writes, of_several_connections_do_not_mix)
{
	client first = connect(), second = connect();
	httpd_conn *other = conn_of(newest()->node.next);
	on_request = [&](httpd_conn *conn) { // of the second connection, and it writes to both
		write_text(conn, "a");
		write_text(other, "b");
		write_text(conn, "c");
		write_text(other, "d");
		return 1;
	};
	second.send("GET / HTTP/1.1\r\n\r\n");
	second.drain();
	first.drain();
	EXPECT_EQ(second.got, "ac");
	EXPECT_EQ(first.got, "bd");
}

// ---------------------------------------------------------------------------------------------------------
// Responses and error pages.

class httpd_response : public server_test
{
protected:
	// Runs `body` as a handler, once.
	std::string answer(const std::function<int32_t(httpd_conn *)> &body, bool keep = true)
	{
		on_request = body;
		client far = connect();
		far.send("GET / HTTP/1.1\r\n\r\n");
		far.drain();
		EXPECT_EQ(far.ended(), !keep);
		far.close();
		settle();
		return far.got;
	}
};

TEST(http_code_to_string, gives_the_reason_of_seven_codes_and_nothing_for_others)
{
	EXPECT_STREQ(http_code_to_string(200), "OK");
	EXPECT_STREQ(http_code_to_string(400), "Bad Request");
	EXPECT_STREQ(http_code_to_string(404), "Not found");
	EXPECT_STREQ(http_code_to_string(405), "Method Not Allowed");
	EXPECT_STREQ(http_code_to_string(406), "Not Acceptable");
	EXPECT_STREQ(http_code_to_string(417), "Expectation Failed");
	EXPECT_STREQ(http_code_to_string(501), "Not Implemented");
	const std::set<int> known = {200, 400, 404, 405, 406, 417, 501};
	for (int code = -10; code < 1100; ++code)
		EXPECT_EQ(http_code_to_string(code)[0] == '\0', known.count(code) == 0) << code;
	EXPECT_STREQ(http_code_to_string(INT_MIN), "");
	EXPECT_STREQ(http_code_to_string(INT_MAX), "");
}

struct owned_buffer {
	buffer *const b;
	explicit owned_buffer(int32_t size = 512) : b(buffer_new_with_size(size)) {}
	owned_buffer(const owned_buffer &) = delete;
	owned_buffer &operator=(const owned_buffer &) = delete;
	~owned_buffer() { buffer_free(b); }
	std::string text() const { return std::string(b->data, static_cast<size_t>(b->length)); }
};

TEST(http_res_put_status_line, appends_version_code_and_reason)
{
	owned_buffer head;
	EXPECT_EQ(http_res_put_status_line(head.b, 1, 200, "OK"), 0);
	EXPECT_EQ(http_res_put_status_line(head.b, 0, 404, "Not found"), 0);
	EXPECT_EQ(http_res_put_status_line(head.b, 5, 302, ""), 0);
	EXPECT_EQ(head.text(), "HTTP/1.1 200 OK\r\nHTTP/1.0 404 Not found\r\nHTTP/1.1 302 \r\n");
}

TEST(http_res_put_status_line, fails_as_buffer_printf_does_when_the_buffer_has_no_room)
{
	owned_buffer exact(18), small(17), tiny(4); // "HTTP/1.1 200 OK\r\n" has 17 bytes
	EXPECT_EQ(http_res_put_status_line(exact.b, 1, 200, "OK"), 0);
	EXPECT_EQ(http_res_put_status_line(small.b, 1, 200, "OK"), -ENOMEM);
	EXPECT_EQ(small.text(), "");
	EXPECT_EQ(http_res_put_status_line(tiny.b, 1, 200, "OK"), -ENOMEM);
	EXPECT_EQ(tiny.text(), "");
	EXPECT_EQ(http_res_put_status_line(nullptr, 1, 200, "OK"), -1);
}

TEST(http_res_put_header, writes_a_formatted_value_on_one_line)
{
	owned_buffer head;
	EXPECT_EQ(http_res_put_header(head.b, "Content-Type", "%s; %s", "text/html", "charset=utf-8"), 0);
	EXPECT_EQ(http_res_put_header(head.b, "Content-Length", "%d", 12), 0);
	EXPECT_EQ(http_res_put_header(head.b, "X-Percent", "%s", "100%s"), 0);
	EXPECT_EQ(head.text(),
		"Content-Type: text/html; charset=utf-8\r\nContent-Length: 12\r\nX-Percent: 100%s\r\n");
}

TEST(http_res_put_header, fails_when_the_value_has_no_room_and_leaves_what_was_written_before_it)
{
	owned_buffer exact(10), small(9); // "Name: " has 6 bytes, and the value needs one for its zero
	EXPECT_EQ(http_res_put_header(exact.b, "Name", "%s", "abc"), 0);
	EXPECT_EQ(exact.text(), "Name: abc\r\n");
	EXPECT_EQ(http_res_put_header(small.b, "Name", "%s", "abc"), -ENOMEM);
	EXPECT_EQ(small.text(), "Name: ");
	EXPECT_EQ(http_res_put_header(nullptr, "Name", "%s", "abc"), -1);
}

TEST(http_res_put_header, refuses_a_value_larger_than_the_buffer)
{
	owned_buffer head(64);
	std::string value(1000, 'v');
	EXPECT_EQ(http_res_put_header(head.b, "Name", "%s", value.c_str()), -ENOMEM);
}

TEST(httpd_common_headers, are_server_pragma_and_expires_in_this_order)
{
	owned_buffer head;
	httpd_conn conn{};
	conn.res_head = head.b;
	EXPECT_EQ(httpd_common_headers(&conn), 0);
	EXPECT_EQ(head.text(), "Server: kvhttpd\r\nPragma: no-cache\r\nExpires: 0\r\n");
}

TEST(httpd_common_headers, stop_with_minus_1_at_the_first_that_fails)
{
	httpd_conn conn{};
	EXPECT_EQ(httpd_common_headers(&conn), -1); // no buffer
	owned_buffer head(15); // "Server: " leaves 7 bytes, "kvhttpd" and its zero need 8
	conn.res_head = head.b;
	EXPECT_EQ(httpd_common_headers(&conn), -1);
	EXPECT_EQ(head.text(), "Server: ");
}

TEST(httpd_res_buffers_reset, empties_what_is_there)
{
	owned_buffer head, body;
	httpd_conn conn{};
	httpd_res_buffers_reset(&conn); // neither
	conn.res_head = head.b;
	buffer_write(head.b, "abc", 3);
	httpd_res_buffers_reset(&conn);
	EXPECT_EQ(head.b->length, 0);
	EXPECT_EQ(head.b->size, 512);
	conn.res_head = nullptr;
	conn.res_body = body.b;
	buffer_write(body.b, "abc", 3);
	httpd_res_buffers_reset(&conn);
	EXPECT_EQ(body.b->length, 0);
	conn.res_head = head.b;
	buffer_write(head.b, "abc", 3);
	buffer_write(body.b, "abc", 3);
	httpd_res_buffers_reset(&conn);
	EXPECT_EQ(head.b->length, 0);
	EXPECT_EQ(body.b->length, 0);
}

TEST_F(httpd_response, a_handler_composes_and_writes_its_own)
{
	std::string got = answer([](httpd_conn *conn) {
		buffer_write(conn->res_body, "body", 4);
		EXPECT_EQ(http_res_put_status_line(
				  conn->res_head, conn->version, 200, http_code_to_string(200)),
			0);
		EXPECT_EQ(httpd_common_headers(conn), 0);
		EXPECT_EQ(http_res_put_header(
				  conn->res_head, "Content-Length", "%d", buffer_length(conn->res_body)),
			0);
		buffer_write(conn->res_head, "\r\n", 2);
		stream_write(
			&conn->stream, conn->res_head->data, static_cast<uint32_t>(conn->res_head->length));
		stream_write(
			&conn->stream, conn->res_body->data, static_cast<uint32_t>(conn->res_body->length));
		httpd_res_buffers_reset(conn);
		return 1;
	});
	EXPECT_EQ(got, "HTTP/1.1 200 OK\r\nServer: kvhttpd\r\nPragma: no-cache\r\nExpires: 0\r\n"
		       "Content-Length: 4\r\n\r\nbody");
}

TEST_F(httpd_response, the_page_of_404_has_these_bytes)
{
	std::string got = answer([](httpd_conn *conn) { return httpd_fail(conn, 1, 404); });
	EXPECT_EQ(got, "HTTP/1.1 404 Not found\r\n"
		       "Server: kvhttpd\r\n"
		       "Pragma: no-cache\r\n"
		       "Expires: 0\r\n"
		       "Content-Type: text/html\r\n"
		       "Content-Length: 62\r\n"
		       "\r\n"
		       "<html><body><h1>404 - Not found</h1><p>Error</p></body></html>");
}

TEST_F(httpd_response, the_page_of_each_code_has_its_reason_and_length)
{
	for (int version : {0, 1})
		for (int code : {200, 400, 404, 405, 406, 417, 500, 501, 302, 0, -5, 99999}) {
			std::string got =
				answer([=](httpd_conn *conn) { return httpd_fail(conn, version, code); });
			EXPECT_EQ(got, error_answer(version, code));
		}
}

TEST_F(httpd_response, a_code_without_a_reason_keeps_the_space_before_it)
{
	EXPECT_THAT(answer([](httpd_conn *conn) { return httpd_fail(conn, 1, 500); }),
		StartsWith("HTTP/1.1 500 \r\nServer: kvhttpd\r\n"));
}

TEST_F(httpd_response, failing_returns_2_and_leaves_both_buffers_empty)
{
	answer([](httpd_conn *conn) {
		EXPECT_EQ(httpd_fail(conn, 0, 400), 2);
		EXPECT_EQ(buffer_length(conn->res_head), 0);
		EXPECT_EQ(buffer_length(conn->res_body), 0);
		return 1;
	});
}

TEST_F(httpd_response, failing_discards_what_was_composed)
{
	EXPECT_EQ(answer([](httpd_conn *conn) {
		buffer_write(conn->res_head, "rubbish", 7);
		buffer_write(conn->res_body, "rubbish", 7);
		return httpd_fail(conn, 1, 404);
	}),
		error_answer(1, 404));
}

TEST_F(httpd_response, failing_does_not_close_the_connection)
{
	answer([](httpd_conn *conn) { return httpd_fail(conn, 1, 404); }, true);
	answer([](httpd_conn *conn) { return httpd_fail(conn, 1, 404), 0; }, false);
}

TEST_F(httpd_response, failing_on_a_stream_that_is_cleaned_up_gives_minus_12_and_keeps_the_buffers)
{
	httpd_conn conn{};
	owned_buffer head, body;
	conn.res_head = head.b;
	conn.res_body = body.b;
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -ENOMEM); // a stream that never was initialised
	EXPECT_EQ(head.text() + body.text(), error_answer(1, 404));
}

TEST_F(httpd_response, failing_on_a_broken_stream_gives_minus_12_and_keeps_the_buffers)
{
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		return 1;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	httpd_conn *conn = newest();
	far.close();
	settle();
	write_text(conn, "finds out");
	EXPECT_TRUE(conn->stream.state & STREAM_ERROR);
	EXPECT_EQ(httpd_fail(conn, 1, 404), -ENOMEM);
	EXPECT_GT(buffer_length(conn->res_head), 0);
	EXPECT_EQ(buffer_length(conn->res_body), 62);
	httpd_defer_complete(conn, 1);
	settle();
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_response, failing_on_a_peer_that_has_gone_gives_minus_12_and_keeps_the_buffers)
{
	for (bool tcp : {false, true}) {
		client far = tcp ? connect_tcp() : connect();
		on_request = [&](httpd_conn *conn) {
			far.close_with_reset();
			EXPECT_EQ(httpd_fail(conn, 1, 404), -ENOMEM);
			EXPECT_EQ(std::string(
					  conn->res_head->data, static_cast<size_t>(conn->res_head->length)) +
					  std::string(conn->res_body->data,
						  static_cast<size_t>(conn->res_body->length)),
				error_answer(1, 404));
			EXPECT_EQ(buffer_length(conn->res_body), 62);
			return 1;
		};
		far.send_some("GET / HTTP/1.1\r\n\r\n");
		EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_response, failing_returns_the_result_of_the_step_that_failed_and_skips_the_rest)
{
	httpd_conn conn{};
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -1) << "the status line finds no buffer";

	owned_buffer no_status(10), no_server(39), room, no_page(62), page(63);
	conn.res_body = room.b;
	conn.res_head = no_status.b;
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -ENOMEM);
	EXPECT_EQ(no_status.text(), "");

	conn.res_head = no_server.b; // status line and "Server: " take 32 bytes, and 7 are left
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -1);
	EXPECT_EQ(no_server.text(), "HTTP/1.1 404 Not found\r\nServer: ");
	EXPECT_EQ(room.text(), "");

	owned_buffer head;
	conn.res_head = head.b;
	conn.res_body = no_page.b; // 62 bytes and a zero do not fit
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -ENOMEM);
	EXPECT_EQ(head.text(),
		"HTTP/1.1 404 Not found\r\nServer: kvhttpd\r\nPragma: no-cache\r\nExpires: 0\r\n"
		"Content-Type: text/html\r\n");
	EXPECT_EQ(no_page.text(), "");

	conn.res_body = page.b;
	EXPECT_EQ(httpd_fail(&conn, 1, 404), -ENOMEM) << "there is no stream";
	EXPECT_EQ(head.text() + page.text(), error_answer(1, 404));
}

// ---------------------------------------------------------------------------------------------------------
// URL coding.

// The input with as many zero bytes after it as may be read.
static std::string decoded(const std::string &bytes, const std::string &after = "")
{
	std::string readable = bytes + after;
	readable.resize(std::max(readable.size(), bytes.size() * 3));
	std::vector<char> exact(readable.begin(), readable.end());
	if (exact.empty())
		exact.push_back('x'); // never null; not read
	char *text = http_alloc_url_decode(exact.data(), static_cast<int32_t>(bytes.size()));
	std::string result = text ? text : "(null)";
	free(text);
	return result;
}

static std::string encoded(const std::string &bytes)
{
	char *text = http_alloc_url_encode(bytes.data(), static_cast<int32_t>(bytes.size()));
	std::string result = text ? text : "(null)";
	free(text);
	return result;
}

TEST(http_alloc_url_decode, decodes_escapes_and_plus_signs)
{
	EXPECT_EQ(decoded("a+b%41"), "a bA");
	EXPECT_EQ(decoded("%2F%2f"), "//");
	EXPECT_EQ(decoded(""), "");
	EXPECT_EQ(decoded("plain-text_~."), "plain-text_~.");
	EXPECT_EQ(decoded("%c3%A9"), "\xc3\xa9");
}

TEST(http_alloc_url_decode, each_escape_reads_two_bytes_behind_the_input)
{
	EXPECT_EQ(decoded("a+b%41", "XYZ"), "a bAXY");
	EXPECT_EQ(decoded("%41%42", "1234567"), "AB1234");
	EXPECT_EQ(decoded("%41", "%42%43"), "A4"); // too close to the end: the percent sign is dropped
	EXPECT_EQ(decoded("%41%41%41", "%42+xyz12"), "AAAB xyz1");
}

TEST(http_alloc_url_decode, an_escape_too_close_to_the_end_loses_its_percent_sign)
{
	EXPECT_EQ(decoded("%4"), "4");
	EXPECT_EQ(decoded("%4", "1"), "4");
	EXPECT_EQ(decoded("100%"), "100");
	EXPECT_EQ(decoded("100%", "41"), "100");
	EXPECT_EQ(decoded("%"), "");
	EXPECT_EQ(decoded("%%"), "");
}

TEST(http_alloc_url_decode, an_escape_with_a_zero_byte_loses_its_percent_sign)
{
	std::string zero("\0", 1);
	EXPECT_EQ(decoded("a%" + zero + "1b"), "a");
	EXPECT_EQ(decoded("%4" + zero + "b"), "4");
}

TEST(http_alloc_url_decode, digits_are_not_checked)
{
	EXPECT_EQ(decoded("%zz"), "3");    // 35 * 16 | 35, in eight bits
	EXPECT_EQ(decoded("%4g"), "P");    // 4 * 16 | 16
	EXPECT_EQ(decoded("%G1"), "\x01"); // 16 * 16 | 1
	EXPECT_EQ(decoded("% 1"), "\x91"); // (32 - 87) * 16 | 1
	EXPECT_EQ(decoded("%1 "), "\xd9"); // 16 | (32 - 87)
	EXPECT_EQ(decoded("%%%41"), "\xee"
				    "41"); // '%' is 37 - 87 = -50
}

TEST(http_alloc_url_decode, an_escaped_zero_byte_ends_what_can_be_seen)
{
	EXPECT_EQ(decoded("ab%00cd"), "ab");
}

TEST(http_alloc_url_decode, null_and_a_negative_length_give_null)
{
	EXPECT_EQ(http_alloc_url_decode(nullptr, 0), nullptr);
	EXPECT_EQ(http_alloc_url_decode(nullptr, 5), nullptr);
	EXPECT_EQ(http_alloc_url_decode("abc", -1), nullptr);
	EXPECT_EQ(http_alloc_url_decode("abc", INT32_MIN), nullptr);
}

TEST(http_alloc_url_decode, agrees_with_a_second_decoder_on_random_bytes)
{
	std::mt19937 random(20240601);
	const std::string alphabet = "%%%%0123456789abcdefABCDEFgzGZ+ /\x80\xff";
	for (int turn = 0; turn < 20000; ++turn) {
		std::string bytes, behind;
		size_t length = random() % 40;
		for (size_t i = 0; i < length; ++i)
			bytes += random() % 20 ? alphabet[random() % alphabet.size()]
					       : static_cast<char>(random());
		for (size_t i = random() % 80; i > 0; --i)
			behind += alphabet[random() % alphabet.size()];
		ASSERT_EQ(decoded(bytes, behind), model_decode(bytes + behind, 0, length))
			<< testing::PrintToString(bytes);
	}
}

TEST(http_alloc_url_encode, keeps_letters_digits_and_four_signs)
{
	std::string kept = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
	EXPECT_EQ(encoded(kept), kept);
	const char *digits = "0123456789abcdef";
	for (int c = 0; c < 256; ++c) {
		std::string one(1, static_cast<char>(c));
		if (kept.find(one) != std::string::npos)
			continue;
		std::string expected = c == ' ' ? "+" : "%"s + digits[c >> 4] + digits[c & 15];
		EXPECT_EQ(encoded(one), expected) << c;
	}
}

TEST(http_alloc_url_encode, encodes_utf_8_byte_by_byte)
{
	EXPECT_EQ(encoded("a b/\xc3\xa9"), "a+b%2f%c3%a9");
	EXPECT_EQ(encoded(""), "");
	EXPECT_EQ(encoded("\0\0"s), "%00%00");
}

TEST(http_alloc_url_encode, null_and_a_negative_length_give_null)
{
	EXPECT_EQ(http_alloc_url_encode(nullptr, 0), nullptr);
	EXPECT_EQ(http_alloc_url_encode(nullptr, 3), nullptr);
	EXPECT_EQ(http_alloc_url_encode("abc", -1), nullptr);
	EXPECT_EQ(http_alloc_url_encode("abc", INT32_MIN), nullptr);
}

TEST(http_alloc_url_encode, is_undone_by_decoding)
{
	std::mt19937 random(20240602);
	for (int turn = 0; turn < 2000; ++turn) {
		std::string bytes;
		for (size_t i = random() % 60; i > 0; --i)
			bytes += static_cast<char>(1 + random() % 255);
		ASSERT_EQ(decoded(encoded(bytes)), bytes);
	}
}

// ---------------------------------------------------------------------------------------------------------
// Parameters.

class http_req_lookup : public testing::Test
{
protected:
	httpd_conn conn{};
	std::vector<char> source;

	// The exact bytes, at the end of what may be read.
	void query(const std::string &text)
	{
		source.assign(text.begin(), text.end());
		conn.method = HTTPD_METHOD_GET;
		conn.query = source.data();
		conn.query_len = static_cast<int32_t>(source.size());
	}
	void post(const std::string &text)
	{
		source.assign(text.begin(), text.end());
		conn.method = HTTPD_METHOD_POST;
		conn.body = source.data();
		conn.body_len = static_cast<int32_t>(source.size());
	}
	std::optional<std::string> lookup(const char *name)
	{
		char *text = http_req_lookup_param(&conn, name);
		std::optional<std::string> result = text ? std::optional<std::string>(text) : std::nullopt;
		free(text);
		return result;
	}
};

TEST_F(http_req_lookup, the_first_parameter_of_a_query_carries_the_question_mark)
{
	query("?a=1&b=2");
	EXPECT_EQ(lookup("a"), std::nullopt);
	EXPECT_EQ(lookup("?a"), "1");
	EXPECT_EQ(lookup("b"), "2");
	EXPECT_EQ(lookup("c"), std::nullopt);
}

TEST_F(http_req_lookup, a_post_is_searched_in_its_body)
{
	post("user=x&flag");
	EXPECT_EQ(lookup("flag"), "");
	EXPECT_EQ(lookup("USER"), "x");
	conn.query = "?a&q=1";
	conn.query_len = 6;
	EXPECT_EQ(lookup("q"), std::nullopt);
}

TEST_F(http_req_lookup, a_get_is_not_searched_in_its_body)
{
	post("a=1");
	conn.method = HTTPD_METHOD_GET;
	EXPECT_EQ(lookup("a"), std::nullopt);
}

TEST_F(http_req_lookup, other_methods_have_no_parameters)
{
	post("a=1");
	conn.query = "?&a=1";
	conn.query_len = 5;
	conn.method = HTTPD_METHOD_OTHER;
	EXPECT_EQ(lookup("a"), std::nullopt);
}

TEST_F(http_req_lookup, without_a_query_or_a_body_nothing_is_found)
{
	conn.method = HTTPD_METHOD_GET;
	EXPECT_EQ(lookup("a"), std::nullopt);
	conn.method = HTTPD_METHOD_POST;
	EXPECT_EQ(lookup("a"), std::nullopt);
	conn.body = "";
	EXPECT_EQ(lookup("a"), std::nullopt);
	EXPECT_EQ(lookup(""), std::nullopt);
}

TEST_F(http_req_lookup, names_are_compared_in_any_case)
{
	query("?x&NaMe=1");
	EXPECT_EQ(lookup("name"), "1");
	EXPECT_EQ(lookup("NAME"), "1");
	EXPECT_EQ(lookup("nam"), std::nullopt);
	EXPECT_EQ(lookup("names"), std::nullopt);
}

TEST_F(http_req_lookup, the_first_match_counts)
{
	post("a=1&A=2&a=3");
	EXPECT_EQ(lookup("a"), "1");
	post("a&a=2");
	EXPECT_EQ(lookup("a"), "");
}

TEST_F(http_req_lookup, a_value_is_what_follows_the_first_equals_sign)
{
	post("a=b=c&d=&=e");
	EXPECT_EQ(lookup("a"), "b=c");
	EXPECT_EQ(lookup("d"), "");
	EXPECT_EQ(lookup(""), "e");
	post("=&a");
	EXPECT_EQ(lookup(""), "");
	EXPECT_EQ(lookup("a"), "");
}

TEST_F(http_req_lookup, empty_pieces_are_skipped)
{
	post("&&&a=1&&b=2&");
	EXPECT_EQ(lookup("a"), "1");
	EXPECT_EQ(lookup("b"), "2");
	EXPECT_EQ(lookup(""), std::nullopt);
	query("?&a=1");
	EXPECT_EQ(lookup("?"), "");
	EXPECT_EQ(lookup("a"), "1");
}

TEST_F(http_req_lookup, names_and_values_are_decoded)
{
	post("%61+b=c%20d&e%3d=%26&f%67");
	EXPECT_EQ(lookup("a b"), "c d");
	EXPECT_EQ(lookup("e="), "&");
	EXPECT_EQ(lookup("fg"), "");
}

TEST_F(http_req_lookup, what_follows_a_piece_never_shows_in_it)
{
	post("%41%42%43=%44%45%46&g=%48%49&secret");
	EXPECT_EQ(lookup("ABC"), "DEF");
	EXPECT_EQ(lookup("g"), "HI");
	query("?x=%41%41&y=2");
	EXPECT_EQ(lookup("?x"), "AA");
}

TEST_F(http_req_lookup, it_ends_at_a_zero_byte)
{
	post("a=1\0&b=2"s);
	EXPECT_EQ(lookup("a"), "1");
	EXPECT_EQ(lookup("b"), std::nullopt);
}

TEST_F(http_req_lookup, a_last_parameter_of_nothing_but_escapes_reads_only_memory_of_its_own)
{
	for (size_t count : {1, 2, 7, 8, 100, 20000}) {
		std::string escapes = repeated("%41", count), letters = repeated("A", count);
		for (const std::string &end : {""s, "%"s, "%4"s}) {
			std::string tail = end == "%4" ? "4" : "";
			post("x=" + escapes + end);
			EXPECT_EQ(lookup("x"), letters + tail);
			query("?x=" + escapes + end);
			EXPECT_EQ(lookup("?x"), letters + tail);
			post(escapes + end);
			EXPECT_EQ(lookup((letters + tail).c_str()), "");
			post(escapes + "=" + escapes);
			EXPECT_EQ(lookup(letters.c_str()), letters);
		}
	}
}

TEST_F(http_req_lookup, the_request_is_left_as_it_was)
{
	post("a=1&b=2");
	std::vector<char> before = source;
	lookup("b");
	EXPECT_EQ(source, before);
	EXPECT_EQ(lookup("a"), "1");
}

using http_req_lookup_served = server_test;

TEST_F(http_req_lookup_served, a_handler_finds_parameters_of_query_and_body)
{
	std::vector<std::string> found;
	on_request = [&](httpd_conn *conn) {
		for (const char *name : {"?a", "b", "body", "none"}) {
			char *value = http_req_lookup_param(conn, name);
			found.push_back(value ? value : "(null)");
			free(value);
		}
		return 1;
	};
	ask("GET /?a=%31&b=%41%42%43 HTTP/1.1\r\n\r\n");
	EXPECT_THAT(found, ElementsAre("1", "ABC", "(null)", "(null)"));
	found.clear();
	std::string body = "b=x&body=" + repeated("%41", 100);
	ask("POST /?a=1 HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
	EXPECT_THAT(found, ElementsAre("(null)", "x", repeated("A", 100), "(null)"));
}

TEST(http_check_host_port, judges_a_host_with_an_optional_port)
{
	struct {
		const char *text;
		int expected;
	} table[] = {{"example", 1}, {"example:80", 1}, {"", 1}, {"10.0.0.1:8080", 1}, {"a:1", 1},
		{"a:65535", 1}, {"a:0", 0}, {"example:0", 0}, {"a:00", 0}, {"example:65536", 0}, {":80", 0},
		{":", 0}, {"example:", 0}, {"example:80x", 0}, {"a:x", 0}, {"a:0x50", 0}, {"[::1]:80", 0},
		{"::1", 0}, {"a:80:90", 0}, {"a::80", 0}, {"a b", 0}, {"a/b", 0}, {"a%b", 0}, {"a?b", 0},
		{"a:80/", 0}, {"a:80?", 0}, {"a: 80", 0}, {" ", 0}, {"a:-1", 0}, {"a:+80", 1},
		{"a:000080", 1}, {"a:99999999999999999999", 0}, {"a:4294967376", 0}, {"\xc3\xa9:80", 1},
		{"a\tb", 1}};
	for (const auto &row : table)
		EXPECT_EQ(http_check_host_port(row.text), row.expected) << row.text;
}

// ---------------------------------------------------------------------------------------------------------
// Connections: made, timed, ended.

using httpd_connection = server_test;

TEST_F(httpd_connection, a_server_starts_without_any)
{
	EXPECT_EQ(ctx.handler, call_on_request);
	EXPECT_EQ(ctx.connections.next, &ctx.connections);
	EXPECT_EQ(ctx.connections.prev, &ctx.connections);
}

TEST_F(httpd_connection, starts_with_these_fields)
{
	int64_t before = time_now();
	client far = connect(SOCK_STREAM, 0xfedcba98);
	int64_t after = time_now();
	httpd_conn *conn = newest();
	EXPECT_EQ(conn->ctx, &ctx);
	EXPECT_EQ(conn->arg, 0xfedcba98u);
	EXPECT_EQ(conn->state, HTTPD_STATE_IDLE);
	EXPECT_EQ(conn->flags, 0);
	EXPECT_NE(conn->headers, nullptr);
	EXPECT_EQ(buffer_length(conn->res_head), 0);
	EXPECT_EQ(conn->res_head->size, 512);
	EXPECT_EQ(conn->res_body->size, 512);
	EXPECT_TRUE(support::is_nonblocking(conn->stream.io.fd));
	EXPECT_EQ(conn->idle_timer.pending, 1);
	EXPECT_GE(conn->idle_timer.expires, before + 60'000'000);
	EXPECT_LE(conn->idle_timer.expires, after + 61'000'000);
}

TEST_F(httpd_connection, the_table_of_headers_hashes_names_from_zero)
{
	client far = connect();
	htable *headers = newest()->headers;
	EXPECT_EQ(headers->hash_fn("Host"), fnv_32_str("Host", 0));
	EXPECT_NE(headers->equal_fn("Host", "Host"), 0);
	EXPECT_EQ(headers->equal_fn("Host", "host"), 0);
}

TEST_F(httpd_connection, new_ones_come_first_in_the_list)
{
	client first = connect(SOCK_STREAM, 1), second = connect(SOCK_STREAM, 2),
	       third = connect(SOCK_STREAM, 3);
	std::vector<uint32_t> order, reverse;
	for (httpd_link *link = ctx.connections.next; link != &ctx.connections; link = link->next)
		order.push_back(conn_of(link)->arg);
	for (httpd_link *link = ctx.connections.prev; link != &ctx.connections; link = link->prev)
		reverse.push_back(conn_of(link)->arg);
	EXPECT_THAT(order, ElementsAre(3, 2, 1));
	EXPECT_THAT(reverse, ElementsAre(1, 2, 3));
}

TEST_F(httpd_connection, over_tcp_sends_without_delay)
{
	client far = connect_tcp();
	int value = 0;
	socklen_t length = sizeof(value);
	ASSERT_EQ(getsockopt(newest()->stream.io.fd, IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
	EXPECT_NE(value, 0);
}

TEST_F(httpd_connection, its_arg_lasts_and_may_be_changed)
{
	std::vector<uint32_t> seen;
	on_request = [&](httpd_conn *conn) {
		seen.push_back(conn->arg++);
		return 1;
	};
	client far = connect(SOCK_STREAM, 5);
	far.send("GET / HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_THAT(seen, ElementsAre(5, 6, 7));
}

TEST_F(httpd_connection, without_input_it_ends_after_60_seconds)
{
	client far = connect();
	make_due(&newest()->idle_timer);
	far.drain();
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(far.got, "");
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_connection, ends_after_60_seconds_in_the_middle_of_a_request)
{
	for (const char *part : {"GET / HT", "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nhel"}) {
		client far = connect();
		far.send(part);
		make_due(&newest()->idle_timer);
		far.drain();
		EXPECT_TRUE(far.ended());
		EXPECT_EQ(far.got, "");
	}
}

TEST_F(httpd_connection, every_byte_gives_it_another_60_seconds)
{
	client far = connect();
	httpd_conn *conn = newest();
	std::string bytes = "\r\nPOST / HTTP/1.1\r\nContent-Length: 2\r\n\r\nab";
	for (char c : bytes) {
		evloop_timeout_cancel(&conn->idle_timer);
		evloop_timeout_set(&conn->idle_timer, 10'000); // 50 seconds have passed
		int64_t before = time_now();
		far.send(std::string(1, c));
		ASSERT_GE(conn->idle_timer.expires, before + 60'000'000);
		ASSERT_LE(conn->idle_timer.expires, time_now() + 61'000'000);
	}
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_connection, every_byte_gives_it_another_60_seconds_while_deferred)
{
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		return 1;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	httpd_conn *conn = newest();
	evloop_timeout_cancel(&conn->idle_timer);
	evloop_timeout_set(&conn->idle_timer, 10'000);
	int64_t before = time_now();
	far.send("x");
	EXPECT_GE(conn->idle_timer.expires, before + 60'000'000);
	httpd_defer_complete(conn, 0);
	settle();
}

TEST_F(httpd_connection, ends_at_end_of_file)
{
	for (const char *part : {"", "\r\n", "GET / HT", "GET / HTTP/1.1\r\n\r\n"}) {
		client far = connect();
		far.send(part);
		far.close_sending();
		far.drain();
		EXPECT_TRUE(far.ended());
		EXPECT_EQ(connection_count(), 0);
	}
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_connection, a_request_that_comes_with_end_of_file_is_answered)
{
	client far = connect();
	far.send_some("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
	far.close_sending();
	far.drain();
	ASSERT_EQ(requests.size(), 2u);
	EXPECT_EQ(far.got, describe(requests[0]) + describe(requests[1]));
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_connection, a_peer_that_has_gone_before_its_answer_does_no_harm)
{
	signal(SIGPIPE, SIG_DFL);
	for (int requests_sent : {1, 2, 50}) {
		client far = connect();
		far.send_some(repeated("GET / HTTP/1.1\r\n\r\n", static_cast<size_t>(requests_sent)));
		far.close();
		settle();
		EXPECT_EQ(connection_count(), 0);
	}
}

TEST_F(httpd_connection, a_reset_peer_does_no_harm)
{
	signal(SIGPIPE, SIG_DFL);
	for (bool with_request : {false, true}) {
		client far = connect_tcp();
		if (with_request)
			far.send_some("GET / HTTP/1.1\r\n\r\n");
		far.close_with_reset();
		EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
	}
}

TEST_F(httpd_connection, a_reset_while_a_large_answer_is_sent_does_no_harm)
{
	signal(SIGPIPE, SIG_DFL);
	for (int32_t result : {0, 1}) {
		on_request = [=](httpd_conn *conn) {
			write_text(conn, std::string(20'000'000, 'x'));
			return result;
		};
		client far = connect_tcp();
		far.send_some("GET / HTTP/1.1\r\n\r\n");
		EXPECT_TRUE(poll_until([&] { return far.receive(1000) > 0; }));
		EXPECT_EQ(connection_count(), 1);
		far.close_with_reset();
		EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
	}
}

TEST_F(httpd_connection, writing_to_a_peer_that_has_gone_raises_no_signal)
{
	signal(SIGPIPE, SIG_DFL);
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		return 1;
	};
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\n");
	ASSERT_TRUE(poll_until([] { return requests.size() == 1; }));
	httpd_conn *conn = newest();
	far.close_with_reset();
	EXPECT_TRUE(poll_until([&] { return (conn->flags & HTTPD_CLOSE_PENDING) != 0; }));
	for (int turn = 0; turn < 3; ++turn) {
		write_text(conn, "still here?");
		stream_printf(&conn->stream, "%s", "and now?");
		settle();
	}
	httpd_defer_complete(conn, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_connection, a_slow_reader_gets_the_whole_answer_before_the_connection_is_closed)
{
	std::string large = pattern(3'000'000);
	on_request = [&](httpd_conn *conn) {
		EXPECT_EQ(write_text(conn, large), 3'000'000);
		return 0;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	while (!far.ended()) {
		size_t before = far.got.size();
		far.receive(10'000);
		settle();
		ASSERT_TRUE(far.ended() || far.got.size() > before);
	}
	EXPECT_TRUE(far.got == large);
	EXPECT_FALSE(far.was_reset());
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_connection, a_slow_reader_over_tcp_gets_the_whole_answer)
{
	std::string large = pattern(9'000'000);
	for (const char *version : {"1.0", "1.1"}) {
		on_request = [&](httpd_conn *conn) {
			write_text(conn, large);
			return 1;
		};
		client far = connect_tcp();
		far.send_some("GET / HTTP/"s + version + "\r\nConnection: close\r\n\r\n");
		EXPECT_TRUE(poll_until([&] { return far.receive(50'000), far.ended(); }));
		EXPECT_TRUE(far.got == large);
		EXPECT_FALSE(far.was_reset());
	}
}

TEST_F(httpd_connection, a_peer_that_closed_its_sending_side_gets_the_whole_answer)
{
	std::string large = pattern(2'000'000);
	for (int32_t result : {0, 1})
		for (bool at_once : {false, true}) {
			on_request = [&](httpd_conn *conn) {
				write_text(conn, large);
				return result;
			};
			client far = connect();
			far.send_some("GET / HTTP/1.1\r\n\r\n");
			if (!at_once)
				settle();
			far.close_sending();
			far.drain();
			EXPECT_TRUE(far.got == large) << far.got.size();
			EXPECT_TRUE(far.ended());
			EXPECT_FALSE(far.was_reset());
			EXPECT_EQ(connection_count(), 0);
		}
}

TEST_F(httpd_connection, a_half_closed_peer_over_tcp_gets_the_whole_answer)
{
	std::string large = pattern(9'000'000);
	on_request = [&](httpd_conn *conn) {
		write_text(conn, large);
		return 1;
	};
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\n");
	far.close_sending();
	EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
	EXPECT_TRUE(far.got == large);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_connection, the_idle_time_out_does_not_cut_off_an_answer_that_is_being_sent)
{
	std::string large = pattern(2'000'000);
	on_request = [&](httpd_conn *conn) {
		write_text(conn, large);
		return 1;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	make_due(&newest()->idle_timer);
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_connection, a_refused_peer_gets_the_answer_although_it_is_still_sending)
{
	for (const std::string &start : {"GET / HTTP/9.9\r\n\r\n"s, with_length(" 66561")}) {
		client far = connect_tcp();
		std::string bytes = start + std::string(60'000, 'x');
		far.send_some(bytes);
		EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
		EXPECT_EQ(far.got.substr(8), bad_request_1_0.substr(8));
	}
}

TEST_F(httpd_connection, a_refused_peer_is_not_reset_for_what_came_meanwhile)
{
	client far = connect_tcp();
	far.send_some("GET / HTTP/9.9\r\n\r\n");
	ASSERT_TRUE(support::wait_for(newest()->stream.io.fd, POLLIN));
	evloop_handle_ios(0); // read, and not looked at yet
	ASSERT_GT(newest()->stream.rx->length, 0);
	far.send_some("and more");
	ASSERT_TRUE(support::wait_for(newest()->stream.io.fd, POLLIN));
	EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
	EXPECT_EQ(far.got, bad_request_1_0);
	EXPECT_FALSE(far.was_reset());
}

TEST_F(httpd_connection, a_peer_that_sent_more_than_its_last_request_is_not_reset)
{
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.0\r\n\r\n");
	ASSERT_TRUE(support::wait_for(newest()->stream.io.fd, POLLIN));
	evloop_handle_ios(0); // read, and not looked at yet
	ASSERT_GT(newest()->stream.rx->length, 0);
	far.send_some("\r\n");
	ASSERT_TRUE(support::wait_for(newest()->stream.io.fd, POLLIN));
	EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_FALSE(far.was_reset());
}

TEST_F(httpd_connection, a_peer_over_a_unix_socket_that_sent_more_than_its_last_request_is_not_reset)
{
	client far = connect();
	far.send_some("GET / HTTP/1.0\r\n\r\n");
	evloop_handle_ios(0); // read, and not looked at yet
	ASSERT_GT(newest()->stream.rx->length, 0);
	far.send_some(std::string(50'000, 'x'));
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_TRUE(far.ended());
	EXPECT_FALSE(far.was_reset());
}

TEST_F(httpd_connection, after_a_large_answer_an_idle_one_keeps_only_a_small_buffer)
{
	on_request = [](httpd_conn *conn) { return write_text(conn, std::string(1'000'000, 'x')); };
	client far = connect();
	far.send("GET / HTTP/1.1\r\n\r\n");
	far.drain();
	ASSERT_EQ(far.got.size(), 1'000'000u);
	on_request = [](httpd_conn *) { return 1; };
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_LE(newest()->stream.tx->size, 4096);
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_EQ(requests.size(), 3u);
}

TEST_F(httpd_connection, after_a_large_request_an_idle_one_keeps_only_a_small_buffer)
{
	client far = connect();
	far.send(with_length(" 66560"));
	far.send(std::string(66560, 'b'));
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_LE(newest()->stream.rx->size, 4096);
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_connection, a_handler_may_stop_the_reading_for_good)
{
	on_request = [](httpd_conn *conn) {
		stream_disable_read(&conn->stream);
		return answer_with_description(conn);
	};
	client far = connect();
	far.send(repeated("GET / HTTP/1.1\r\n\r\n", 2));
	far.send("GET / HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 2u); // what had been received, and nothing more
	EXPECT_TRUE(newest()->stream.state & STREAM_READ_DISABLED);
	EXPECT_FALSE(far.ended());
}

// A connection that is being ended gracefully, with an answer that its peer has not taken yet.
class httpd_draining : public server_test
{
protected:
	std::string large = pattern(2'000'000);

	void SetUp() override
	{
		server_test::SetUp();
		on_request = [this](httpd_conn *conn) {
			write_text(conn, large);
			return 0;
		};
	}
	client start(client far, const std::string &behind = "")
	{
		far.send("GET / HTTP/1.1\r\n\r\n" + behind);
		EXPECT_EQ(requests.size(), 1u);
		EXPECT_EQ(connection_count(), 1);
		return far;
	}
};

TEST_F(httpd_draining, requests_that_came_with_the_last_one_are_not_handled)
{
	client far = start(connect(), repeated("GET /late HTTP/1.1\r\n\r\n", 10));
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_draining, requests_that_come_late_are_not_handled)
{
	client far = start(connect());
	far.send_some(repeated("GET /late HTTP/1.1\r\n\r\n", 10));
	settle();
	far.receive(100'000);
	far.send_some("GET /later HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_draining, a_read_that_was_announced_before_it_began_is_not_handled)
{
	client far = connect();
	on_request = [this](httpd_conn *conn) {
		write_text(conn, large);
		stream_notify_read(&conn->stream);
		return 0;
	};
	far.send("GET / HTTP/1.1\r\n\r\nGET /late HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_TRUE(far.got == large);
}

TEST_F(httpd_draining, after_a_refused_request_nothing_is_handled)
{
	on_request = [this](httpd_conn *conn) {
		write_text(conn, large);
		return 1;
	};
	client far = start(connect(), "GET / HTTP/9.9\r\n\r\nGET /late HTTP/1.1\r\n\r\n");
	far.send_some("GET /late HTTP/1.1\r\n\r\n");
	far.drain();
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_TRUE(far.got == large + bad_request_1_0);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_draining, a_peer_that_closes_its_sending_side_gets_the_rest)
{
	client far = start(connect());
	far.close_sending();
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_draining, a_peer_that_goes_ends_it_at_once)
{
	client far = start(connect());
	far.receive(1000);
	far.close();
	settle();
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_draining, a_reset_ends_it_at_once)
{
	large = pattern(20'000'000);
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\n");
	ASSERT_TRUE(poll_until([] { return requests.size() == 1; }));
	settle();
	ASSERT_EQ(connection_count(), 1);
	far.close_with_reset();
	EXPECT_TRUE(poll_until([&] { return connection_count() == 0; }));
}

TEST_F(httpd_draining, over_tcp_a_slow_peer_gets_the_rest_although_it_sent_more)
{
	large = pattern(20'000'000);
	client far = connect_tcp();
	far.send_some("GET / HTTP/1.1\r\n\r\n");
	ASSERT_TRUE(poll_until([] { return requests.size() == 1; }));
	settle();
	ASSERT_EQ(connection_count(), 1);
	far.send_some("\r\n"); // as some peers do after a body
	EXPECT_TRUE(poll_until([&] { return far.receive(100'000), far.ended(); }));
	EXPECT_TRUE(far.got == large) << far.got.size();
}

TEST_F(httpd_draining, without_progress_for_60_seconds_it_ends)
{
	client far = start(connect());
	httpd_conn *conn = newest();
	EXPECT_EQ(conn->idle_timer.pending, 1);
	EXPECT_LE(conn->idle_timer.expires, time_now() + 61'000'000);
	make_due(&conn->idle_timer);
	settle();
	EXPECT_EQ(connection_count(), 0);
	far.drain();
	EXPECT_TRUE(far.ended());
	EXPECT_LT(far.got.size(), large.size());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_draining, without_progress_it_ends_after_connection_close_as_well)
{
	on_request = [this](httpd_conn *conn) {
		write_text(conn, large);
		return 1;
	};
	client far = connect();
	far.send("GET / HTTP/1.1\r\nConnection: close\r\n\r\n");
	ASSERT_EQ(connection_count(), 1);
	make_due(&newest()->idle_timer);
	settle();
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_draining, progress_gives_it_another_60_seconds)
{
	client far = start(connect());
	httpd_conn *conn = newest();
	for (int turn = 0; turn < 5; ++turn) {
		evloop_timeout_set(&conn->idle_timer, 1'000); // 59 seconds have passed
		ASSERT_GT(far.receive(300'000), 0u);
		settle();
		ASSERT_EQ(connection_count(), 1);
		if (conn->idle_timer.expires <
			time_now() + 30'000'000) { // progress may be looked at when it is due
			make_due(&conn->idle_timer);
			settle();
			ASSERT_EQ(connection_count(), 1);
			ASSERT_GE(conn->idle_timer.expires, time_now() + 30'000'000);
		}
	}
	far.drain();
	EXPECT_TRUE(far.got == large);
}

TEST_F(httpd_draining, a_server_that_is_cleaned_up_ends_it)
{
	client far = start(connect());
	httpd_ctx_cleanup(&ctx);
	EXPECT_EQ(connection_count(), 0);
	far.drain();
	EXPECT_TRUE(far.ended());
}

// ---------------------------------------------------------------------------------------------------------
// Deferred answers.

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

TEST_F(httpd_deferral, the_connection_waits_for_the_answer)
{
	client far = connect();
	far.send(get("/later") + get("/next"));
	far.send(get("/another"));
	EXPECT_EQ(requests.size(), 1u);
	EXPECT_EQ(deferred->flags, HTTPD_DEFERRED);
	far.drain();
	EXPECT_EQ(far.got, "");
	write_text(deferred, "late\n");
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(requests.size(), 1u); // the next one is parsed from the loop
	far.drain();
	EXPECT_EQ(far.got, "late\nnow:/next\nnow:/another\n");
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_deferral, the_result_of_the_handler_does_not_count)
{
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		return 0;
	};
	client far = connect();
	far.send(get("/"));
	far.drain();
	EXPECT_FALSE(far.ended());
	httpd_defer_complete(newest(), 1);
	far.drain();
	EXPECT_FALSE(far.ended());
	EXPECT_EQ(connection_count(), 1);
}

TEST_F(httpd_deferral, completed_without_keep_the_connection_ends_when_the_answer_is_sent)
{
	std::string large = pattern(1'000'000);
	client far = connect();
	far.send(get("/later") + get("/next"));
	write_text(deferred, large);
	httpd_defer_complete(deferred, 0);
	far.drain();
	EXPECT_TRUE(far.got == large);
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_deferral, completed_with_keep_the_connection_ends_if_the_request_wants_it)
{
	for (const char *bytes : {"GET /later HTTP/1.0\r\n\r\n",
		     "GET /later HTTP/1.1\r\nConnection: close\r\n\r\nGET / HTTP/1.1\r\n\r\n"}) {
		client far = connect();
		far.send(bytes);
		write_text(deferred, "late");
		httpd_defer_complete(deferred, 1);
		far.drain();
		EXPECT_EQ(far.got, "late");
		EXPECT_TRUE(far.ended());
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_deferral, can_be_completed_at_once_or_later_and_before_or_after_writing)
{
	for (bool inside : {false, true})
		for (int keep : {0, 1})
			for (int32_t result : {0, 1})
				for (bool pipelined : {false, true}) {
					requests.clear();
					on_request = [&](httpd_conn *conn) {
						if (requests.size() > 1) {
							write_text(conn, "next");
							return 1;
						}
						write_text(conn, "a");
						httpd_defer(conn);
						write_text(conn, "b");
						deferred = conn;
						if (inside) {
							httpd_defer_complete(conn, keep);
							EXPECT_EQ(conn->arg, 5u); // still valid
						}
						return result;
					};
					client far = connect(SOCK_STREAM, 5);
					far.send(get("/first") + (pipelined ? get("/second") : ""));
					if (!inside)
						httpd_defer_complete(deferred, keep);
					if (!pipelined)
						far.send(get("/second"));
					far.drain();
					std::string name = std::to_string(inside) + std::to_string(keep) +
							   std::to_string(result) + std::to_string(pipelined);
					// With the deferral over before the handler returns, its result counts.
					bool goes_on = keep && (!inside || result);
					EXPECT_EQ(far.got, goes_on ? "abnext" : "ab") << name;
					EXPECT_EQ(far.ended(), !goes_on) << name;
					far.close();
					settle();
					EXPECT_EQ(connection_count(), 0) << name;
				}
}

TEST_F(httpd_deferral, a_second_call_of_either_has_no_effect)
{
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		httpd_defer(conn);
		EXPECT_EQ(conn->flags, HTTPD_DEFERRED);
		return 1;
	};
	client far = connect();
	far.send(get("/"));
	httpd_conn *conn = newest();
	httpd_defer_complete(conn, 1);
	httpd_defer_complete(conn, 0);
	far.drain();
	EXPECT_FALSE(far.ended());
	EXPECT_EQ(conn->state, HTTPD_STATE_IDLE);
}

TEST_F(httpd_deferral, completing_without_one_does_nothing)
{
	client far = connect();
	httpd_defer_complete(newest(), 0);
	httpd_defer_complete(newest(), 1);
	EXPECT_EQ(newest()->state, HTTPD_STATE_IDLE);
	on_request = [](httpd_conn *conn) {
		httpd_defer_complete(conn, 0);
		write_text(conn, "x");
		return 1;
	};
	far.send(get("/") + get("/"));
	far.drain();
	EXPECT_EQ(far.got, "xx");
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_deferral, several_in_a_row_on_one_connection)
{
	client far = connect();
	std::string expected;
	far.send(repeated(get("/later"), 20));
	for (int turn = 0; turn < 20; ++turn) {
		ASSERT_EQ(requests.size(), static_cast<size_t>(turn + 1));
		write_text(deferred, std::to_string(turn));
		expected += std::to_string(turn);
		httpd_defer_complete(deferred, 1);
		far.drain();
	}
	EXPECT_EQ(far.got, expected);
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_deferral, on_several_connections_can_be_completed_in_any_order)
{
	std::vector<client> peers;
	std::vector<httpd_conn *> conns;
	for (int i = 0; i < 6; ++i) {
		peers.push_back(connect());
		peers.back().send(get("/later"));
		conns.push_back(deferred);
	}
	for (size_t i : {3u, 0u, 5u, 1u, 4u, 2u}) {
		write_text(conns[i], "for " + std::to_string(i));
		httpd_defer_complete(conns[i], static_cast<int>(i % 2));
		peers[i].drain();
		EXPECT_EQ(peers[i].got, "for " + std::to_string(i));
		EXPECT_EQ(peers[i].ended(), i % 2 == 0);
	}
}

TEST_F(httpd_deferral, the_request_stays_readable_while_more_arrives_behind_it)
{
	client far = connect();
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		return 1;
	};
	std::string head = "POST http://host/path?query=1 HTTP/1.1\r\nA: b\r\nContent-Length: 4\r\n\r\n";
	far.send(head + "body");
	httpd_conn *conn = newest();
	std::string before = describe(request_of(conn));
	const char *old_data = conn->stream.rx->data;
	for (int turn = 0; turn < 50; ++turn) {
		far.send(std::string(1000, 'x'));
		EXPECT_EQ(describe(request_of(conn)), before);
		expect_consistent(conn);
	}
	EXPECT_NE(conn->stream.rx->data, old_data) << "the buffer has not moved: this shows nothing";
	httpd_defer_complete(conn, 0);
	settle();
}

TEST_F(httpd_deferral, requests_received_meanwhile_are_all_answered_afterwards)
{
	client far = connect();
	std::string expected;
	far.send(get("/later"));
	for (int i = 0; i < 1000; ++i) {
		far.send(get("/" + std::to_string(i)));
		expected += "now:/" + std::to_string(i) + "\n";
	}
	write_text(deferred, "late\n");
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_EQ(far.got, "late\n" + expected);
}

TEST_F(httpd_deferral, a_flood_meanwhile_is_bounded_and_refused_afterwards)
{
	client far = connect();
	far.send(get("/later"));
	std::string flood = repeated(get("/flood"), 500);
	size_t taken = 0;
	for (size_t count = 1; count > 0 && taken < 10'000'000;) {
		count = far.send_some(flood);
		taken += count;
		settle(); // fails the test if the loop spins
		ASSERT_LE(deferred->stream.rx->length, HTTPD_RX_BYTES_MAX);
	}
	EXPECT_LT(taken, 10'000'000u) << "the peer was never stopped";
	write_text(deferred, "late\n");
	httpd_defer_complete(deferred, 1);
	far.drain();
	// More than one request may have: as if all had been received.
	EXPECT_EQ(far.got, "late\n" + bad_request_1_0);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_deferral, of_the_largest_request_a_flood_behind_it_is_bounded)
{
	client far = connect();
	std::string head = "POST /later HTTP/1.1\r\nContent-Length: 66560\r\nFill: ";
	head += std::string(66560 - head.size() - 4, 'f') + "\r\n\r\n";
	far.send(head);
	std::string body = pattern(66560);
	far.send(body);
	ASSERT_EQ(requests.size(), 1u);
	while (far.send_some(std::string(100'000, 'x')) > 0) {
		settle();
		ASSERT_LE(deferred->stream.rx->length, HTTPD_RX_BYTES_MAX);
	}
	EXPECT_TRUE(request_of(deferred).body == body);
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_EQ(far.got, bad_request_1_0);
}

TEST_F(httpd_deferral, a_peer_that_goes_meanwhile_leaves_the_record_alive)
{
	client far = connect();
	far.send(get("/later"));
	std::string before = describe(request_of(deferred));
	far.close();
	settle();
	EXPECT_EQ(deferred->flags, HTTPD_DEFERRED | HTTPD_CLOSE_PENDING);
	EXPECT_EQ(connection_count(), 1);
	EXPECT_EQ(describe(request_of(deferred)), before);
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_peer_that_goes_meanwhile_does_not_make_the_loop_spin)
{
	for (bool tcp : {false, true}) {
		client far = tcp ? connect_tcp() : connect();
		far.send_some(get("/later"));
		deferred = nullptr;
		ASSERT_TRUE(poll_until([this] { return deferred != nullptr; }));
		far.close();
		ASSERT_TRUE(poll_until([this] { return (deferred->flags & HTTPD_CLOSE_PENDING) != 0; }));
		settle(); // fails the test if the loop spins
		long events = waits.events;
		for (int pass = 0; pass < 100; ++pass)
			support::run_pass();
		EXPECT_EQ(waits.events, events);
		write_text(deferred, std::string(1'000'000, 'x'));
		support::run_passes(100);
		settle();
		events = waits.events;
		for (int pass = 0; pass < 100; ++pass)
			support::run_pass();
		EXPECT_EQ(waits.events, events);
		httpd_defer_complete(deferred, 0);
		settle();
		EXPECT_EQ(connection_count(), 0);
	}
}

TEST_F(httpd_deferral, a_reset_meanwhile_does_not_make_the_loop_spin)
{
	client far = connect_tcp();
	far.send_some(get("/later"));
	ASSERT_TRUE(poll_until([this] { return deferred != nullptr; }));
	far.close_with_reset();
	ASSERT_TRUE(poll_until([this] { return (deferred->flags & HTTPD_CLOSE_PENDING) != 0; }));
	settle();
	long events = waits.events;
	for (int pass = 0; pass < 100; ++pass)
		support::run_pass();
	EXPECT_EQ(waits.events, events);
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_peer_that_floods_and_goes_meanwhile_does_not_make_the_loop_spin)
{
	client far = connect();
	far.send(get("/later"));
	while (far.send_some(std::string(100'000, 'x')) > 0)
		settle();
	far.close();
	settle();
	long events = waits.events;
	for (int pass = 0; pass < 100; ++pass)
		support::run_pass();
	EXPECT_EQ(waits.events, events);
	EXPECT_EQ(connection_count(), 1);
	httpd_defer_complete(deferred, 1);
	settle();
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_peer_that_only_closed_its_sending_side_gets_the_whole_answer)
{
	std::string large = pattern(2'000'000);
	for (bool tcp : {false, true})
		for (int keep : {0, 1})
			for (bool eof_first : {false, true}) {
				client far = tcp ? connect_tcp() : connect();
				deferred = nullptr;
				far.send_some(get("/later"));
				if (eof_first)
					far.close_sending();
				ASSERT_TRUE(poll_until([this] { return deferred != nullptr; }));
				settle();
				write_text(deferred, large);
				if (!eof_first)
					far.close_sending();
				settle();
				httpd_defer_complete(deferred, keep);
				EXPECT_TRUE(poll_until([&] { return far.receive(), far.ended(); }));
				EXPECT_TRUE(far.got == large) << tcp << keep << eof_first << far.got.size();
				EXPECT_FALSE(far.was_reset());
				EXPECT_EQ(connection_count(), 0);
			}
}

TEST_F(httpd_deferral, a_half_closed_peer_gets_no_answer_to_what_waits_for_the_deferred_one)
{
	client far = connect();
	far.send_some(get("/now") + get("/later") + get("/behind"));
	far.close_sending();
	settle();
	write_text(deferred, "late\n");
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_EQ(far.got, "now:/now\nlate\n");
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_deferral, a_half_closed_peer_gets_an_answer_written_in_parts)
{
	client far = connect();
	far.send(get("/later"));
	far.close_sending();
	std::string expected;
	for (int i = 0; i < 50; ++i) {
		settle();
		write_text(deferred, pattern(20'000));
		expected += pattern(20'000);
	}
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_TRUE(far.got == expected);
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_deferral, sixty_seconds_without_input_close_the_descriptor_only)
{
	client far = connect();
	on_request = [](httpd_conn *conn) {
		httpd_defer(conn);
		return 1;
	};
	far.send("POST http://host/path?query HTTP/1.1\r\nA: b\r\nContent-Length: 7\r\n\r\nx=%41&y");
	httpd_conn *conn = newest();
	std::string before = describe(request_of(conn));
	int fd = conn->stream.io.fd;
	make_due(&conn->idle_timer);
	settle();
	EXPECT_EQ(conn->flags, HTTPD_DEFERRED | HTTPD_CLOSE_PENDING | HTTPD_FD_CLOSED);
	EXPECT_FALSE(support::is_open(fd));
	far.drain();
	EXPECT_EQ(far.got, "");
	EXPECT_TRUE(far.ended());
	EXPECT_EQ(connection_count(), 1);

	EXPECT_EQ(describe(request_of(conn)), before); // the request is still there
	char *value = http_req_lookup_param(conn, "x");
	EXPECT_STREQ(value, "A");
	free(value);
	EXPECT_EQ(write_text(conn, "too late"), -EINVAL);
	EXPECT_EQ(httpd_fail(conn, 1, 404), -ENOMEM);
	EXPECT_EQ(buffer_length(conn->res_body), 62);
	httpd_defer_complete(conn, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_descriptor_that_was_closed_is_not_closed_again)
{
	client far = connect();
	far.send(get("/later"));
	int fd = deferred->stream.io.fd;
	make_due(&deferred->idle_timer);
	settle();
	ASSERT_FALSE(support::is_open(fd));
	support::owned_fd reused(dup(far.fd()));
	if (reused.get() != fd) {
		ASSERT_EQ(dup2(far.fd(), fd), fd);
		reused.reset(fd);
	}
	httpd_defer_complete(deferred, 0);
	EXPECT_EQ(connection_count(), 0);
	EXPECT_TRUE(support::is_open(fd));
}

TEST_F(httpd_deferral, a_handler_that_stops_the_reading_of_a_peer_that_has_gone_does_not_make_the_loop_spin)
{
	client far = connect();
	far.send(get("/later"));
	far.close();
	settle();
	write_text(deferred, "finds out");
	settle();
	stream_disable_read(&deferred->stream);
	settle(); // fails the test if the loop spins
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, a_half_closed_peer_that_goes_when_it_has_read_all_does_not_make_the_loop_spin)
{
	std::string large = pattern(1'000'000);
	for (bool tcp : {false, true}) {
		client far = tcp ? connect_tcp() : connect();
		deferred = nullptr;
		far.send_some(get("/later"));
		ASSERT_TRUE(poll_until([this] { return deferred != nullptr; }));
		write_text(deferred, large);
		far.close_sending();
		ASSERT_TRUE(poll_until([this] { return (deferred->flags & HTTPD_CLOSE_PENDING) != 0; }));
		ASSERT_TRUE(poll_until([&] { return far.receive(), far.got.size() == large.size(); }));
		settle();
		far.close();
		settle(); // fails the test if the loop spins
		long events = waits.events;
		support::run_passes(100);
		EXPECT_EQ(waits.events, events);
		EXPECT_TRUE(far.got == large);
		httpd_defer_complete(deferred, 1);
		EXPECT_EQ(connection_count(), 0);
	}
}

TEST_F(httpd_deferral, can_be_completed_by_the_handler_of_another_connection)
{
	for (int keep : {0, 1}) {
		client first = connect(), second = connect();
		first.send(get("/later") + get("/next"));
		on_request = [&](httpd_conn *conn) {
			write_text(conn, "a");
			if (deferred) {
				write_text(deferred, "late");
				httpd_defer_complete(std::exchange(deferred, nullptr), keep);
			}
			write_text(conn, "b");
			return 1;
		};
		second.send(get("/") + get("/"));
		second.drain();
		first.drain();
		EXPECT_EQ(second.got, "abab");
		EXPECT_EQ(first.got, keep ? "lateab" : "late");
		EXPECT_EQ(first.ended(), !keep);
		defer_later();
	}
}

TEST_F(httpd_deferral, the_idle_time_out_comes_also_after_the_peer_has_gone)
{
	client far = connect();
	far.send(get("/later"));
	far.close();
	settle();
	if (deferred->idle_timer.pending)
		make_due(&deferred->idle_timer);
	settle();
	EXPECT_TRUE(deferred->flags & HTTPD_CLOSE_PENDING);
	EXPECT_EQ(connection_count(), 1);
	httpd_defer_complete(deferred, 1);
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_deferral, an_answer_to_the_deferred_request_may_be_larger_than_what_the_peer_takes)
{
	std::string large = pattern(2'000'000);
	client far = connect();
	far.send(get("/later") + get("/next"));
	write_text(deferred, large);
	httpd_defer_complete(deferred, 1);
	far.drain();
	EXPECT_TRUE(far.got == large + "now:/next\n");
	EXPECT_FALSE(far.ended());
}

// ---------------------------------------------------------------------------------------------------------
// Ending a server.

class httpd_cleanup : public httpd_deferral
{
};

TEST_F(httpd_cleanup, ends_every_connection_at_once)
{
	client idle = connect(), half = connect(), served = connect();
	half.send("GET / HT");
	served.send(get("/"));
	httpd_ctx_cleanup(&ctx);
	EXPECT_EQ(connection_count(), 0);
	for (client *far : {&idle, &half, &served}) {
		far->receive();
		EXPECT_TRUE(far->ended());
	}
}

TEST_F(httpd_cleanup, of_an_empty_or_cleaned_server_does_nothing)
{
	httpd_ctx_cleanup(&ctx);
	httpd_ctx_cleanup(&ctx);
	EXPECT_EQ(connection_count(), 0);
	client far = connect(); // it can be used again
	far.send(get("/"));
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_cleanup, reports_each_deferred_connection_and_leaves_it_to_its_completion)
{
	support::child_result result = support::run_child([this] {
		ASSERT_TRUE(support::enter_private_namespaces());
		ASSERT_TRUE(support::replace_file("/dev/kmsg", ""));
		log_open(LOG_DEST_KMSG | LOG_DEST_STDIO, 0, "test");
		client first = connect(), second = connect(), third = connect();
		second.send(get("/later"));
		httpd_ctx_cleanup(&ctx);
		EXPECT_EQ(connection_count(), 1);
		EXPECT_EQ(newest(), deferred);
		EXPECT_EQ(deferred->flags, HTTPD_DEFERRED | HTTPD_CLOSE_PENDING);
		EXPECT_EQ(support::read_file("/dev/kmsg"), "<2>test: BUG: deferred connections around\n");
		first.receive();
		third.receive();
		second.receive();
		EXPECT_TRUE(first.ended());
		EXPECT_TRUE(third.ended());
		EXPECT_FALSE(second.ended());
		httpd_defer_complete(deferred, 1);
		EXPECT_EQ(connection_count(), 0);
		second.receive();
		EXPECT_TRUE(second.ended());
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err, "test: BUG: deferred connections around\n");
}

TEST_F(httpd_cleanup, reports_two_deferred_connections_twice)
{
	support::child_result result = support::run_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client first = connect(), second = connect();
		first.send(get("/later"));
		httpd_conn *other = deferred;
		second.send(get("/later"));
		httpd_ctx_cleanup(&ctx);
		EXPECT_EQ(connection_count(), 2);
		httpd_defer_complete(deferred, 0);
		httpd_defer_complete(other, 0);
		EXPECT_EQ(connection_count(), 0);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err, repeated("test: BUG: deferred connections around\n", 2));
}

TEST_F(httpd_cleanup, of_a_deferred_connection_whose_descriptor_is_closed_leaves_it_to_its_completion)
{
	support::expect_in_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client far = connect();
		far.send(get("/later"));
		make_due(&deferred->idle_timer);
		settle();
		httpd_ctx_cleanup(&ctx);
		EXPECT_EQ(connection_count(), 1);
		EXPECT_EQ(request_of(deferred).target, "/later");
		httpd_defer_complete(deferred, 1);
		EXPECT_EQ(connection_count(), 0);
	});
}

TEST_F(httpd_cleanup, reports_nothing_without_deferred_connections)
{
	support::child_result result = support::run_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client far = connect();
		httpd_ctx_cleanup(&ctx);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err, "");
}

TEST_F(httpd_cleanup, in_a_handler_leaves_its_connection_valid_until_it_returns)
{
	for (int32_t result : {0, 1}) {
		on_request = [&](httpd_conn *conn) {
			write_text(conn, "before");
			httpd_ctx_cleanup(&ctx);
			EXPECT_EQ(request_of(conn).target, "/target"); // still readable
			write_text(conn, "after");
			httpd_fail(conn, 1, 404);
			httpd_res_buffers_reset(conn);
			EXPECT_EQ(httpd_header_table_get(conn, "None"), nullptr);
			return result;
		};
		requests.clear();
		client other = connect(), far = connect(), third = connect();
		far.send(get("/target") + get("/late"));
		settle();
		EXPECT_EQ(connection_count(), 0);
		EXPECT_EQ(requests.size(), 1u);
		for (client *peer : {&other, &far, &third}) {
			peer->receive();
			EXPECT_TRUE(peer->ended());
		}
	}
}

TEST_F(httpd_cleanup, in_a_handler_that_has_deferred_waits_for_the_completion)
{
	on_request = [this](httpd_conn *conn) {
		httpd_defer(conn);
		deferred = conn;
		httpd_ctx_cleanup(&ctx);
		return 0;
	};
	support::expect_in_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client far = connect();
		far.send(get("/"));
		EXPECT_EQ(connection_count(), 1);
		EXPECT_EQ(deferred->flags, HTTPD_DEFERRED | HTTPD_CLOSE_PENDING);
		EXPECT_EQ(request_of(deferred).target, "/");
		httpd_defer_complete(deferred, 1);
		settle();
		EXPECT_EQ(connection_count(), 0);
	});
}

TEST_F(httpd_cleanup, in_a_handler_that_has_deferred_and_completed_ends_the_connection)
{
	for (int keep : {0, 1}) {
		on_request = [&](httpd_conn *conn) {
			httpd_defer(conn);
			httpd_defer_complete(conn, keep);
			httpd_ctx_cleanup(&ctx);
			EXPECT_EQ(request_of(conn).target, "/");
			return 1;
		};
		client far = connect();
		far.send(get("/") + get("/late"));
		far.drain();
		EXPECT_TRUE(far.ended());
		EXPECT_EQ(connection_count(), 0);
	}
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_cleanup, in_a_handler_between_defer_and_complete_ends_the_connection)
{
	on_request = [this](httpd_conn *conn) {
		httpd_defer(conn);
		httpd_ctx_cleanup(&ctx);
		httpd_defer_complete(conn, 1);
		EXPECT_EQ(request_of(conn).target, "/");
		return 1;
	};
	support::expect_in_child([this] {
		log_open(LOG_DEST_STDIO, 0, "test");
		client far = connect();
		far.send(get("/") + get("/late"));
		far.drain();
		EXPECT_TRUE(far.ended());
		EXPECT_EQ(connection_count(), 0);
		EXPECT_EQ(requests.size(), 1u);
	});
}

// A server that is not to be looked at once it has been released.
class brief_server
{
	httpd_ctx ctx_;

public:
	explicit brief_server(httpd_handler handler) { httpd_ctx_init(&ctx_, handler); }
	brief_server(const brief_server &) = delete;
	brief_server &operator=(const brief_server &) = delete;
	~brief_server()
	{
#if defined(__SANITIZE_ADDRESS__)
		__asan_unpoison_memory_region(&ctx_, sizeof(ctx_));
#endif
		httpd_ctx poison;
		memset(static_cast<void *>(&poison), 0xa5, sizeof(poison));
		EXPECT_EQ(memcmp(&ctx_, &poison, sizeof(ctx_)), 0) << "it was written to";
	}
	httpd_ctx *ctx()
	{
		return &ctx_;
	}
	void release()
	{
		memset(static_cast<void *>(&ctx_), 0xa5, sizeof(ctx_));
#if defined(__SANITIZE_ADDRESS__)
		__asan_poison_memory_region(&ctx_, sizeof(ctx_));
#endif
	}
};

TEST_F(httpd_cleanup, in_a_handler_the_server_may_be_released_when_nothing_is_deferred)
{
	for (int32_t result : {0, 1})
		for (bool defers : {false, true}) {
			brief_server brief(call_on_request);
			on_request = [&](httpd_conn *conn) {
				if (defers) {
					httpd_defer(conn);
					httpd_defer_complete(conn, result);
				}
				httpd_ctx_cleanup(brief.ctx());
				brief.release();
				EXPECT_EQ(request_of(conn).target, "/");
				return result;
			};
			support::socket_pair here, elsewhere;
			httpd_accept(here.near.give(), 0, brief.ctx());
			httpd_accept(elsewhere.near.give(), 0, brief.ctx());
			client far(std::move(here.far)), other(std::move(elsewhere.far));
			far.send(get("/") + get("/late"));
			far.drain();
			other.drain();
			EXPECT_TRUE(far.ended());
			EXPECT_TRUE(other.ended());
		}
	EXPECT_EQ(requests.size(), 4u);
}

TEST_F(httpd_cleanup, the_server_may_be_released_when_it_has_ended)
{
	brief_server brief(call_on_request);
	std::string large = pattern(1'000'000);
	on_request = [&](httpd_conn *conn) {
		write_text(conn, large);
		return 0;
	};
	support::socket_pair here, elsewhere;
	httpd_accept(here.near.give(), 0, brief.ctx());
	httpd_accept(elsewhere.near.give(), 0, brief.ctx());
	client draining(std::move(here.far)), idle(std::move(elsewhere.far));
	draining.send(get("/"));
	idle.send_some(get("/never"));
	evloop_handle_ios(0); // read, and the parser's turn is pending
	httpd_ctx_cleanup(brief.ctx());
	brief.release();
	draining.drain();
	idle.drain();
	EXPECT_TRUE(draining.ended());
	EXPECT_TRUE(idle.ended());
	EXPECT_EQ(requests.size(), 1u);
}

TEST_F(httpd_cleanup, an_event_that_was_fetched_for_an_ended_connection_reaches_nothing)
{
	std::vector<client> peers;
	for (int i = 0; i < 10; ++i) {
		peers.push_back(connect());
		peers.back().send_some(get("/"));
	}
	for (int dispatched = 0; dispatched < 7; ++dispatched) // all ten were fetched by one wait
		evloop_handle_ios(0);
	httpd_ctx_cleanup(&ctx);
	settle();
	EXPECT_EQ(connection_count(), 0);
	EXPECT_THAT(requests, IsEmpty());
}

// ---------------------------------------------------------------------------------------------------------
// What a peer can make the server hold.

class httpd_backlog : public server_test
{
protected:
	static constexpr size_t answer_length = 1000;

	void SetUp() override
	{
		server_test::SetUp();
		on_request = [](httpd_conn *conn) {
			write_text(conn, answer_to(request_of(conn).target));
			return 1;
		};
	}
	static std::string answer_to(const std::string &target)
	{
		std::string text = "answer to " + target + " ";
		text.resize(answer_length - 1, '.');
		return text + "\n";
	}
	static std::string get(int number) { return "GET /" + std::to_string(number) + " HTTP/1.1\r\n\r\n"; }
	static std::string answers(int count)
	{
		std::string all;
		for (int i = 0; i < count; ++i)
			all += answer_to("/" + std::to_string(i));
		return all;
	}
	// Less under way than one request may have, so that no request is refused for what is behind it.
	static void send_small(const client &far)
	{
		int bytes = 16384;
		setsockopt(far.fd(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
	}
};

TEST_F(httpd_backlog, a_peer_that_reads_nothing_is_not_read_from_either)
{
	constexpr int count = 20000;
	client far = connect();
	send_small(far);
	std::string bytes;
	for (int i = 0; i < count; ++i)
		bytes += get(i);
	std::string_view left = bytes;
	int32_t tx_max = 0, rx_max = 0;
	auto send_all = [&] {
		for (size_t taken = 1; taken > 0 && !left.empty();) {
			taken = far.send_some(left.substr(0, 8192));
			left.remove_prefix(taken);
			settle(); // fails the test if the loop spins
			tx_max = std::max(tx_max, newest()->stream.tx->length);
			rx_max = std::max(rx_max, newest()->stream.rx->length);
		}
	};
	send_all();
	EXPECT_FALSE(left.empty()) << "the peer was never stopped";
	EXPECT_LT(requests.size(), 1000u);
	do {
		send_all();
		settle();
	} while (far.receive() > 0);
	EXPECT_TRUE(left.empty());
	EXPECT_LT(tx_max, HTTPD_TX_BYTES_STALL + 32768);
	EXPECT_LE(rx_max, HTTPD_RX_BYTES_MAX);
	EXPECT_EQ(requests.size(), static_cast<size_t>(count));
	EXPECT_TRUE(far.got == answers(count)) << far.got.size();
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_backlog, a_handler_stops_the_reading_for_good_although_it_was_paused)
{
	client far = connect();
	send_small(far);
	while (far.send_some(repeated(get(0), 100)) > 0)
		settle();
	ASSERT_GT(newest()->stream.rx->length, 0) << "no request waits";
	ASSERT_TRUE(newest()->stream.state & STREAM_READ_DISABLED) << "it was not paused";
	size_t handled = requests.size();
	on_request = [&](httpd_conn *conn) {
		if (requests.size() == handled + 1)
			stream_disable_read(&conn->stream);
		return 1;
	};
	far.drain();
	EXPECT_GT(requests.size(), handled);
	EXPECT_TRUE(newest()->stream.state & STREAM_READ_DISABLED);
	handled = requests.size();
	far.send_some(repeated(get(0), 2));
	settle();
	EXPECT_EQ(requests.size(), handled);
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_backlog, no_further_request_is_handled_while_too_much_is_unsent)
{
	client far = connect();
	on_request = [](httpd_conn *conn) {
		EXPECT_LT(conn->stream.tx->length, HTTPD_TX_BYTES_STALL);
		write_text(conn, std::string(1'000'000, 'x'));
		return 1;
	};
	far.send(repeated("GET / HTTP/1.1\r\n\r\n", 3));
	EXPECT_EQ(requests.size(), 1u);
	far.send("GET / HTTP/1.1\r\n\r\n");
	EXPECT_EQ(requests.size(), 1u);
	far.drain();
	EXPECT_EQ(requests.size(), 4u);
	EXPECT_EQ(far.got.size(), 4'000'000u);
	EXPECT_FALSE(far.ended());
}

TEST_F(httpd_backlog, a_peer_that_closed_its_sending_side_gets_every_answer)
{
	constexpr int count = 2500; // all of them together are below what one request may have
	client far = connect();
	std::string bytes;
	for (int i = 0; i < count; ++i)
		bytes += get(i);
	ASSERT_LT(bytes.size(), 66561u);
	far.send(bytes);
	far.close_sending();
	settle();
	EXPECT_LT(requests.size(), 1000u);
	far.drain();
	EXPECT_EQ(requests.size(), static_cast<size_t>(count));
	EXPECT_TRUE(far.got == answers(count)) << far.got.size();
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_backlog, a_peer_that_closed_its_sending_side_with_its_requests_gets_every_answer)
{
	constexpr int count = 2500;
	std::string bytes;
	for (int i = 0; i < count; ++i)
		bytes += get(i);
	// So many bytes that the server reads on to the end of file at once.
	bytes.insert(
		bytes.size() - 2, "Fill: " + std::string(2 * 1024 - (bytes.size() + 8) % 1024, 'f') + "\r\n");
	ASSERT_EQ(bytes.size() % 1024, 0u);
	client far = connect();
	EXPECT_EQ(far.send_some(bytes), bytes.size());
	far.close_sending();
	far.drain();
	EXPECT_EQ(requests.size(), static_cast<size_t>(count));
	EXPECT_TRUE(far.got == answers(count)) << far.got.size();
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_backlog, a_peer_that_goes_while_its_answers_wait_does_no_harm)
{
	client far = connect();
	std::string bytes;
	for (int i = 0; i < 2500; ++i)
		bytes += get(i);
	far.send(bytes);
	far.close();
	settle();
	EXPECT_EQ(connection_count(), 0);
	EXPECT_LT(requests.size(), 2500u);
}

TEST_F(httpd_backlog, a_peer_that_never_reads_ends_after_60_seconds)
{
	client far = connect();
	std::string bytes;
	for (int i = 0; i < 2500; ++i)
		bytes += get(i);
	far.send(bytes);
	for (int turn = 0; turn < 3 && connection_count() > 0; ++turn) { // idle first, then draining
		make_due(&newest()->idle_timer);
		settle();
	}
	EXPECT_EQ(connection_count(), 0);
}

TEST_F(httpd_backlog, a_request_that_was_refused_behind_waiting_answers_is_answered_last)
{
	client far = connect();
	std::string bytes;
	for (int i = 0; i < 2000; ++i)
		bytes += get(i);
	far.send(bytes + "GET / HTTP/1.1\r\nbroken\r\n\r\n" + get(1));
	far.drain();
	EXPECT_TRUE(far.got == answers(2000) + bad_request_1_1) << far.got.size();
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_backlog, over_tcp_every_answer_arrives_in_order)
{
	constexpr int count = 20000;
	client far = connect_tcp();
	send_small(far);
	int receive_bytes = 16384;
	setsockopt(newest()->stream.io.fd, SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof(receive_bytes));
	std::string bytes;
	for (int i = 0; i < count; ++i)
		bytes += get(i);
	std::string_view left = bytes;
	EXPECT_TRUE(poll_until([&] {
		left.remove_prefix(far.send_some(left.substr(0, 4096)));
		far.receive(20'000);
		return far.got.size() >= count * answer_length || far.ended();
	}));
	EXPECT_EQ(requests.size(), static_cast<size_t>(count));
	EXPECT_TRUE(far.got == answers(count)) << far.got.size();
}

// Arriving at once, so many bytes would be refused. Here they have gathered because the server did not read.
TEST_F(httpd_backlog, what_gathers_while_requests_wait_is_not_refused_for_its_amount)
{
	constexpr int count = 10000;
	client far = connect_tcp();
	const stream &near = newest()->stream;
	auto set_buffer = [](int fd, int direction, int size) {
		setsockopt(fd, SOL_SOCKET, direction, &size, sizeof(size));
	};
	set_buffer(far.fd(), SO_SNDBUF, 1 << 20);
	set_buffer(near.io.fd, SO_RCVBUF, 1 << 20);
	set_buffer(near.io.fd, SO_SNDBUF, 65536);
	std::string bytes;
	std::string expected;
	for (int i = 0; i < count; ++i) {
		std::string body(i % 1000 == 999 ? HTTPD_REQUEST_BYTES_LIMIT - 1 : 0, 'b');
		bytes += "POST /" + std::to_string(i) +
			 " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
		expected += answer_to("/" + std::to_string(i));
	}
	std::string_view left = bytes;
	ASSERT_TRUE(poll_until([&] {
		left.remove_prefix(far.send_some(left.substr(0, 4096)));
		return near.tx->length >= HTTPD_TX_BYTES_STALL;
	}));
	settle();
	size_t gathered = far.send_some(left);
	left.remove_prefix(gathered);
	ASSERT_GT(gathered, static_cast<size_t>(HTTPD_RX_BYTES_MAX));
	EXPECT_TRUE(poll_until([&] {
		left.remove_prefix(far.send_some(left.substr(0, 4096)));
		far.receive(20'000);
		return far.got.size() >= expected.size() || far.ended();
	}));
	EXPECT_TRUE(far.got == expected) << far.got.size() << " of " << expected.size();
}

// ---------------------------------------------------------------------------------------------------------
// All of it at once.

class httpd_disorder : public server_test
{
protected:
	std::mt19937 random{1};
	std::vector<client> peers;
	std::set<httpd_conn *> deferred;
	std::set<uint32_t> ended; // by `arg`: connections that must not see another request
	uint32_t connected = 0;

	void SetUp() override
	{
		server_test::SetUp();
		log_open(0, 0, "test"); // no destination: the report of deferred connections is expected
		on_request = [this](httpd_conn *conn) { return handle(conn); };
	}

	unsigned below(unsigned bound) { return static_cast<unsigned>(random() % bound); }
	void write_something(httpd_conn *conn)
	{
		write_text(conn, std::string(below(4) ? below(100) : 300'000, 'x'));
	}
	int32_t handle(httpd_conn *conn)
	{
		EXPECT_EQ(ended.count(conn->arg), 0u);
		EXPECT_EQ(deferred.count(conn), 0u);
		int32_t result = below(4) != 0;
		bool completes = false;
		int keep = below(2) != 0;
		std::string before = describe(request_of(conn));
		write_something(conn);
		if (below(3) == 0) {
			httpd_defer(conn);
			write_something(conn);
			completes = below(2) != 0;
			if (completes)
				httpd_defer_complete(conn, keep);
			else
				deferred.insert(conn);
		}
		if (below(200) == 0) {
			httpd_ctx_cleanup(&ctx);
			if (!deferred.count(conn))
				ended.insert(conn->arg);
		}
		EXPECT_EQ(describe(request_of(conn)), before);
		if (!deferred.count(conn) && (result == 0 || (completes && !keep)))
			ended.insert(conn->arg);
		return result;
	}
	void complete_one()
	{
		if (deferred.empty())
			return;
		auto which = std::next(deferred.begin(), below(static_cast<unsigned>(deferred.size())));
		httpd_conn *conn = *which;
		deferred.erase(which);
		int keep = below(2) != 0;
		EXPECT_EQ(request_of(conn).body, "body");
		write_something(conn);
		if (!keep || (conn->flags & HTTPD_CLOSE_PENDING))
			ended.insert(conn->arg);
		httpd_defer_complete(conn, keep);
	}
	void expire_one()
	{
		int count = connection_count();
		if (count == 0)
			return;
		httpd_link *link = ctx.connections.next;
		for (unsigned skip = below(static_cast<unsigned>(count)); skip > 0; --skip)
			link = link->next;
		if (!conn_of(link)->idle_timer.pending)
			return;
		if (!deferred.count(conn_of(link)))
			ended.insert(conn_of(link)->arg);
		make_due(&conn_of(link)->idle_timer);
		evloop_handle_timeouts();
	}
	void send_something(client *far)
	{
		const std::string good =
			(below(2) ? "POST" : "GET") + " /path HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody"s;
		switch (below(10)) {
		case 0:
			far->send_some("POST / HTTP/1.0\r\nContent-Length: 4\r\n\r\nbody");
			break;
		case 1:
			far->send_some("POST / HTTP/1.1\r\nbroken\r\n\r\n");
			break;
		case 2:
			far->send_some(repeated(good, 1000));
			break;
		case 3:
			far->send_some(good.substr(0, below(40)));
			break;
		default:
			far->send_some(repeated(good, 1 + below(5)));
		}
	}
	void do_something()
	{
		if (peers.empty() || (peers.size() < 8 && below(6) == 0)) {
			++connected;
			peers.push_back(below(4) ? connect(SOCK_STREAM, connected) : connect_tcp(connected));
			return;
		}
		size_t index = below(static_cast<unsigned>(peers.size()));
		switch (below(16)) {
		case 0:
			if (below(2))
				peers[index].close_with_reset();
			peers.erase(peers.begin() + static_cast<std::ptrdiff_t>(index));
			break;
		case 1:
			peers[index].close_sending();
			break;
		case 2:
			expire_one();
			break;
		case 3:
		case 4:
			complete_one();
			break;
		case 5:
		case 6:
			peers[index].receive(below(2) ? 100 : SIZE_MAX);
			break;
		case 7:
			peers[index].drain();
			break;
		case 8:
			settle(); // fails the test if the loop spins
			break;
		case 9:
			if (below(20) == 0)
				httpd_ctx_cleanup(&ctx);
			break;
		case 10:
		case 11:
		case 12:
			support::run_pass();
			break;
		default:
			send_something(&peers[index]);
		}
	}
};

TEST_F(httpd_disorder, whatever_happens_in_whatever_order_every_connection_ends_once)
{
	for (unsigned seed = 1; seed <= 100 && !HasFailure(); ++seed) {
		random.seed(seed);
		for (int turn = 0; turn < 150; ++turn)
			do_something();
		while (!deferred.empty())
			complete_one();
		if (below(2))
			peers.clear();
		settle();
		httpd_ctx_cleanup(&ctx);
		while (!deferred.empty()) // of requests that were handled meanwhile
			complete_one();
		settle();
		peers.clear();
		EXPECT_EQ(connection_count(), 0) << "seed " << seed;
		requests.clear();
		ended.clear();
	}
	EXPECT_GT(connected, 500u);
}

// ---------------------------------------------------------------------------------------------------------
// Exhausted memory.

class httpd_memory : public server_test
{
protected:
	static int32_t answer_ok(httpd_conn *conn)
	{
		stream_write(&conn->stream, "ok", 2);
		return 1;
	}
	void SetUp() override
	{
		server_test::SetUp();
		ctx.handler = answer_ok;
	}
	static void expect_no_leak()
	{
#if defined(__SANITIZE_ADDRESS__)
		EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
#endif
	}
	// Runs `body`, which refuses request `nth` for memory, in a child for each of its requests. It must get
	// by, or end the process as the allocators do that never fail. Returns how many times it did the latter.
	int refuse_each(const std::function<void(int nth)> &body)
	{
		int fatal = 0;
		for (int nth = 0; nth < 1000; ++nth) {
			support::child_result result = support::run_child([&] {
				set_app_name("test");
				body(nth);
				if (!memory.refused)
					fprintf(stderr, "nothing refused\n");
				expect_no_leak();
			});
			if (result.err == "nothing refused\n") {
				EXPECT_TRUE(result.exited_with(0)) << result.report();
				EXPECT_GT(nth, 0);
				return fatal;
			}
			if (result.killed_by(SIGABRT) && result.err == "test: out of memory\n")
				++fatal;
			else
				EXPECT_TRUE(result.exited_with(0)) << nth << " " << result.report();
		}
		ADD_FAILURE() << "no end";
		return fatal;
	}
};

TEST_F(httpd_memory, a_connection_without_a_record_is_closed)
{
	support::socket_pair pair;
	int fd = pair.near.give();
	memory.refuse(0, sizeof(httpd_conn));
	httpd_accept(fd, 0, &ctx);
	memory.grant();
	EXPECT_TRUE(memory.refused);
	EXPECT_FALSE(support::is_open(fd));
	EXPECT_EQ(connection_count(), 0);
	client far(std::move(pair.far));
	far.drain();
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_memory, no_allocation_that_fails_while_accepting_does_harm)
{
	int fatal = refuse_each([this](int nth) {
		int fds[2];
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
		memory.refuse(nth);
		httpd_accept(fds[1], 0, &ctx);
		bool accepted = ctx.connections.next != &ctx.connections;
		EXPECT_EQ(support::is_open(fds[1]), accepted);
		memory.grant();
		client far{support::owned_fd(fds[0])};
		far.send("GET / HTTP/1.1\r\nA: b\r\nContent-Length: 2\r\n\r\nab");
		far.send("GET / HTTP/1.1\r\nA: b\r\n\r\n");
		far.drain();
		EXPECT_EQ(far.got, accepted ? "okok" : "");
		EXPECT_EQ(far.ended(), !accepted);
		httpd_ctx_cleanup(&ctx);
	});
	EXPECT_LE(fatal, 8); // the four buffers, each a record and its storage
}

TEST_F(httpd_memory, no_allocation_that_fails_while_parsing_does_harm)
{
	refuse_each([this](int nth) {
		client far = connect();
		memory.refuse(nth);
		far.send("POST /a%41?b HTTP/1.1\r\nFirst: 1\r\nFirst: 2\r\nLonger-Name: longer value\r\n"
			 "Content-Length: 0000000004\r\nLast: 3\r\n\r\nbodyGET http://host HTTP/1.1\r\n\r\n");
		memory.grant();
		far.drain();
		EXPECT_TRUE(far.got == "okok" || far.got == error_answer(1, 500) ||
			    (far.ended() && far.got.empty()))
			<< far.got;
		httpd_ctx_cleanup(&ctx);
	});
}

TEST_F(httpd_memory, a_length_that_cannot_be_copied_is_answered_500_without_a_reason)
{
	std::string value = std::string(300, '0') + "4";
	client far = connect();
	std::string bytes =
		"POST / HTTP/1.1\r\nContent-Length: " + value + "\r\n\r\nbodyGET / HTTP/1.1\r\n\r\n";
	memory.refuse_from(0, value.size(), value.size() + 2);
	far.send(bytes);
	memory.grant();
	EXPECT_TRUE(memory.refused);
	far.drain();
	EXPECT_EQ(far.got, "HTTP/1.1 500 \r\n"
			   "Server: kvhttpd\r\n"
			   "Pragma: no-cache\r\n"
			   "Expires: 0\r\n"
			   "Content-Type: text/html\r\n"
			   "Content-Length: 53\r\n"
			   "\r\n"
			   "<html><body><h1>500 - </h1><p>Error</p></body></html>");
	EXPECT_TRUE(far.ended());
}

TEST_F(httpd_memory, a_header_value_that_cannot_be_copied_reads_as_absent)
{
	static const char *other, *missing;
	ctx.handler = [](httpd_conn *conn) {
		missing = httpd_header_table_get(conn, "Large");
		other = httpd_header_table_get(conn, "Other") ? "there" : "not there";
		return answer_ok(conn);
	};
	missing = "not looked at";
	client far = connect();
	std::string bytes = "GET / HTTP/1.1\r\nLarge: " + std::string(3000, 'v') + "\r\nOther: x\r\n\r\n";
	memory.refuse_from(0, 3000, 3002);
	far.send(bytes);
	memory.grant();
	EXPECT_TRUE(memory.refused);
	EXPECT_EQ(missing, nullptr);
	EXPECT_STREQ(other, "there");
	far.drain();
	EXPECT_EQ(far.got, "ok");
}

TEST_F(httpd_memory, a_header_name_that_cannot_be_copied_does_no_harm)
{
	static const char *other;
	ctx.handler = [](httpd_conn *conn) {
		other = httpd_header_table_get(conn, "Other") ? "there" : "not there";
		return answer_ok(conn);
	};
	client far = connect();
	std::string bytes = "GET / HTTP/1.1\r\n" + std::string(3000, 'n') + ": v\r\nOther: x\r\n\r\n";
	memory.refuse_from(0, 3000, 3002);
	far.send(bytes);
	memory.grant();
	EXPECT_TRUE(memory.refused);
	EXPECT_STREQ(other, "there");
	far.drain();
	EXPECT_EQ(far.got, "ok");
}
