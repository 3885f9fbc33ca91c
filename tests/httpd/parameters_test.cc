// URL coding, and the parameters and header values that a handler asks for.
#include "tests/httpd/fixture.h"

#include <algorithm>
#include <random>

#include <gmock/gmock.h>

using namespace http_test;
using testing::ElementsAre;

// ---- URL coding ----

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
		std::string bytes, after;
		size_t length = random() % 40;
		for (size_t i = 0; i < length; ++i)
			bytes += random() % 20 ? alphabet[random() % alphabet.size()]
					       : static_cast<char>(random());
		for (size_t i = random() % 80; i > 0; --i)
			after += alphabet[random() % alphabet.size()];
		ASSERT_EQ(decoded(bytes, after), model_decode(bytes + after, 0, length))
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

// ---- Parameters ----

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
