// Requests as the server reads them: the request line, the path, header lines, the body and the bounds of all that.
#include "tests/httpd/fixture.h"

#include <algorithm>

#include <gmock/gmock.h>

using namespace http_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

// ---- The request line ----

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

// ---- The decoded path ----

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

// ---- Header lines ----

using httpd_headers = server_test;

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

// ---- The body, and what bounds a request ----

using httpd_body = server_test;

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
