// The HTTP server as its peers see it: a corpus of requests against a second parser, in every way they may
// arrive, and the real curl.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>

#include <gmock/gmock.h>

#include "lib/sock.h"
#include "tests/support/http_client.h"

using namespace http_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

extern char **environ;

// ---- The corpus ----

struct result {
	std::string answers;
	bool ended;
};

static bool operator==(const result &a, const result &b)
{
	return a.answers == b.answers && a.ended == b.ended;
}

static std::ostream &operator<<(std::ostream &stream, const result &value)
{
	return stream << testing::PrintToString(value.answers) << (value.ended ? " and closed" : " and open");
}

static result expected_of(const std::vector<std::string> &pieces)
{
	model far;
	for (const std::string &piece : pieces)
		far.receive(piece);
	return {far.answers(), far.closed()};
}

class httpd_corpus : public server_test
{
protected:
	result served(const std::vector<std::string> &pieces)
	{
		client far = connect();
		for (const std::string &piece : pieces)
			if (!far.send(piece))
				break; // closed after a refusal
		far.drain();
		far.close();
		settle();
		return {far.got, far.ended()};
	}
	void expect_as_model(const std::vector<std::string> &pieces)
	{
		EXPECT_EQ(served(pieces), expected_of(pieces)) << testing::PrintToString(pieces);
	}
};

TEST_F(httpd_corpus, has_hundreds_of_requests_of_every_outcome)
{
	std::map<outcome, int> counts;
	for (const sample &one : corpus())
		++counts[one.expected];
	EXPECT_GE(counts[outcome::kept], 200);
	EXPECT_GE(counts[outcome::closed], 100);
	EXPECT_GE(counts[outcome::refused_1_0], 200);
	EXPECT_GE(counts[outcome::refused_1_1], 50);
	EXPECT_GE(counts[outcome::unfinished], 15);
}

TEST_F(httpd_corpus, the_second_parser_gives_the_outcomes_written_down_by_hand)
{
	for (const sample &one : corpus()) {
		result got = expected_of({one.bytes});
		outcome found = got.answers.empty()                                ? outcome::unfinished
				: got.answers == error_answer(0, 400) && got.ended ? outcome::refused_1_0
				: got.answers == error_answer(1, 400) && got.ended ? outcome::refused_1_1
				: got.ended                                        ? outcome::closed
										   : outcome::kept;
		EXPECT_EQ(found, one.expected) << testing::PrintToString(one.bytes);
	}
}

TEST_F(httpd_corpus, requests_sent_whole_get_the_expected_answers)
{
	for (const sample &one : corpus())
		expect_as_model(in_one_piece(one.bytes));
}

TEST_F(httpd_corpus, requests_sent_byte_by_byte_get_the_same_answers)
{
	for (const sample &one : corpus()) {
		std::vector<std::string> pieces = byte_by_byte(one.bytes);
		expect_as_model(pieces);
		result whole = expected_of({one.bytes});
		EXPECT_TRUE(one.reads_past_head || expected_of(pieces) == whole)
			<< testing::PrintToString(one.bytes);
	}
}

TEST_F(httpd_corpus, requests_sent_in_random_pieces_get_the_same_answers)
{
	std::mt19937 random(1);
	for (const sample &one : corpus()) {
		std::vector<std::string> pieces = in_random_pieces(one.bytes, &random);
		expect_as_model(pieces);
		result whole = expected_of({one.bytes});
		EXPECT_TRUE(one.reads_past_head || expected_of(pieces) == whole)
			<< testing::PrintToString(one.bytes);
	}
}

TEST_F(httpd_corpus, pipelined_requests_get_the_same_answers_however_they_arrive)
{
	std::mt19937 random(2);
	std::vector<sample> lasting; // after these, another request may follow
	for (const sample &one : corpus())
		if (one.expected == outcome::kept && !one.reads_past_head)
			lasting.push_back(one);
	for (int turn = 0; turn < 150; ++turn) {
		std::string bytes;
		for (size_t count = random() % 12; count > 0; --count)
			bytes += lasting[random() % lasting.size()].bytes;
		sample last = corpus()[random() % corpus().size()];
		while (last.reads_past_head)
			last = corpus()[random() % corpus().size()];
		bytes += last.bytes;
		for (const auto &pieces :
			{in_one_piece(bytes), byte_by_byte(bytes), in_random_pieces(bytes, &random)}) {
			expect_as_model(pieces);
			EXPECT_EQ(expected_of(pieces), expected_of({bytes}));
		}
	}
}

TEST_F(httpd_corpus, what_an_escape_brings_into_a_path_is_what_has_arrived)
{
	std::mt19937 random(3);
	const sample *reading = nullptr;
	for (const sample &one : corpus()) {
		if (!one.reads_past_head)
			continue;
		reading = &one;
		std::string bytes = one.bytes + "GET /next?query HTTP/1.1\r\nA: b\r\n\r\n";
		expect_as_model(in_one_piece(bytes));
		expect_as_model(byte_by_byte(bytes));
		for (int turn = 0; turn < 20; ++turn)
			expect_as_model(in_random_pieces(bytes, &random));
	}
	ASSERT_NE(reading, nullptr);
}

TEST_F(httpd_corpus, requests_with_random_damage_get_the_expected_answers)
{
	std::mt19937 random(4);
	const std::string noise = "\r\n \t:%?/&=+\0aZ09\x80\xff"s;
	for (int turn = 0; turn < 3000; ++turn) {
		std::string bytes = corpus()[random() % corpus().size()].bytes;
		for (size_t count = 1 + random() % 3; count > 0; --count) {
			size_t at = random() % (bytes.size() + 1);
			std::string one(1, noise[random() % noise.size()]);
			switch (random() % 4) {
			case 0:
				bytes.insert(at, one);
				break;
			case 1:
				bytes.erase(at, 1 + random() % 3);
				break;
			case 2:
				bytes.insert(at, "\r\n");
				break;
			default:
				if (at < bytes.size())
					bytes.replace(at, 1, one);
			}
		}
		expect_as_model(in_one_piece(bytes));
		expect_as_model(in_random_pieces(bytes, &random));
	}
}

TEST_F(httpd_corpus, large_requests_meet_the_limits_wherever_they_are_cut)
{
	std::mt19937 random(5);
	for (size_t length : {66400u, 66555u, 66559u, 66560u, 66561u, 66562u, 66700u, 70000u})
		for (size_t body : {0u, 1u, 5000u, 66560u}) {
			std::string start = "POST /%41 HTTP/1.1\r\nContent-Length: " + std::to_string(body) +
					    "\r\nFill: ";
			std::string bytes = start + std::string(length - start.size() - 4, 'f') + "\r\n\r\n" +
					    std::string(body, 'b') + "GET /next HTTP/1.1\r\n\r\n";
			expect_as_model(in_one_piece(bytes));
			for (int turn = 0; turn < 4; ++turn) {
				size_t cut = turn ? random() % bytes.size() : length;
				expect_as_model({bytes.substr(0, cut), bytes.substr(cut)});
				size_t at = std::min(cut, length - 1 - random() % 20);
				expect_as_model(
					{bytes.substr(0, at), bytes.substr(at, 10), bytes.substr(at + 10)});
			}
		}
}

TEST_F(httpd_corpus, over_tcp_the_answers_are_the_same)
{
	support::loopback_listener listener(64);
	std::mt19937 random(6);
	const auto &all = corpus();
	for (size_t i = 0; i < all.size(); i += 3) {
		const sample &one = all[i];
		if (one.reads_past_head)
			continue; // its answer depends on what arrives together
		result expected = expected_of({one.bytes});
		client far(support::connect_to(listener.port));
		httpd_accept(listener.accept_one().give(), 0, &ctx);
		std::vector<std::string> pieces = in_random_pieces(one.bytes, &random);
		auto next = pieces.begin();
		bool done = poll_until([&] {
			if (next != pieces.end())
				far.send_some(*next++);
			far.receive();
			return next == pieces.end() && far.got.size() >= expected.answers.size() &&
			       (far.ended() || !expected.ended);
		});
		EXPECT_TRUE(done) << testing::PrintToString(one.bytes);
		settle();
		far.receive();
		EXPECT_EQ((result{far.got, far.ended()}), expected) << testing::PrintToString(one.bytes);
		far.close();
		EXPECT_TRUE(poll_until([this] { return connection_count() == 0; }));
	}
}

TEST_F(httpd_corpus, hundreds_of_connections_at_once_are_served_side_by_side)
{
	std::mt19937 random(7);
	constexpr size_t count = 200;
	std::vector<client> peers;
	std::vector<std::vector<std::string>> pieces;
	for (size_t i = 0; i < count; ++i) {
		peers.push_back(connect());
		pieces.push_back(in_random_pieces(corpus()[random() % corpus().size()].bytes, &random));
	}
	std::vector<size_t> next(count, 0);
	for (size_t left = count; left > 0;) {
		left = 0;
		for (size_t i = 0; i < count; ++i)
			if (next[i] < pieces[i].size()) {
				peers[i].send_some(pieces[i][next[i]++]);
				++left;
			}
		settle();
	}
	for (size_t i = 0; i < count; ++i) {
		peers[i].receive();
		EXPECT_EQ((result{peers[i].got, peers[i].ended()}), expected_of(pieces[i]));
	}
	peers.clear();
	settle();
}

// ---- curl, through the library's own listening socket ----

struct curl_result {
	int status = -1;
	std::string out;
};

class httpd_curl : public server_test
{
protected:
	sock listener{};
	std::string base; // of an address: scheme, host and port

	void SetUp() override
	{
		server_test::SetUp();
		listener.flags = SOCK_TCP;
		listener.accept_cb = [](int fd, uint32_t address, void *user) {
			httpd_accept(fd, address, user);
		};
		listener.user = &ctx;
		ASSERT_EQ(sock_listen(&listener, "127.0.0.1", "0", 16), 0);
		base = "http://127.0.0.1:" + std::to_string(support::local_port(listener.io.fd));
		on_request = [](httpd_conn *conn) {
			request seen = request_of(conn);
			std::string text = "<" + seen.target + ">" + seen.body.value_or("");
			respond(conn, 200, text);
			return 1;
		};
	}
	void TearDown() override
	{
		sock_close(&listener);
		server_test::TearDown();
	}

	static void respond(httpd_conn *conn, int code, const std::string &text)
	{
		buffer *head = conn->res_head;
		EXPECT_EQ(http_res_put_status_line(head, conn->version, code, http_code_to_string(code)), 0);
		EXPECT_EQ(httpd_common_headers(conn), 0);
		EXPECT_EQ(http_res_put_header(head, "Content-Length", "%zu", text.size()), 0);
		buffer_write(head, "\r\n", 2);
		buffer_write(head, text.data(), static_cast<int32_t>(text.size()));
		stream_write(&conn->stream, head->data, static_cast<uint32_t>(head->length));
		httpd_res_buffers_reset(conn);
	}

	// Runs curl, quiet and without its user's settings, while the loop serves it.
	curl_result curl(std::vector<std::string> arguments)
	{
		arguments.insert(
			arguments.begin(), {"curl", "-q", "-sS", "--noproxy", "*", "--max-time", "60"});
		std::vector<char *> argv;
		for (std::string &argument : arguments)
			argv.push_back(argument.data());
		argv.push_back(nullptr);
		support::pipe_pair out;
		posix_spawn_file_actions_t actions;
		posix_spawn_file_actions_init(&actions);
		posix_spawn_file_actions_adddup2(&actions, out.write_end.get(), 1);
		posix_spawn_file_actions_adddup2(&actions, out.write_end.get(), 2);
		pid_t pid = -1;
		int error = posix_spawnp(&pid, "curl", &actions, nullptr, argv.data(), environ);
		posix_spawn_file_actions_destroy(&actions);
		curl_result result;
		if (error) {
			ADD_FAILURE() << "curl does not start: " << strerror(error);
			return result;
		}
		out.write_end.reset();
		support::set_nonblocking(out.read_end.get());
		bool ended = support::run_until(
			[&] {
				char chunk[65536];
				ssize_t count;
				while ((count = read(out.read_end.get(), chunk, sizeof(chunk))) > 0)
					result.out.append(chunk, static_cast<size_t>(count));
				return count == 0;
			},
			90'000);
		if (!ended)
			kill(pid, SIGKILL);
		int status = 0;
		waitpid(pid, &status, 0);
		result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
		return result;
	}
	void expect_curl(const std::vector<std::string> &arguments, const std::string &out)
	{
		curl_result got = curl(arguments);
		EXPECT_EQ(got.status, 0);
		EXPECT_EQ(got.out, out);
	}
};

TEST_F(httpd_curl, gets_a_page)
{
	expect_curl({base + "/path?query=1"}, "</path?query=1>");
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_EQ(requests[0].method, HTTPD_METHOD_GET);
	EXPECT_EQ(requests[0].version, 1);
	EXPECT_EQ("http://" + requests[0].headers["Host"], base);
	EXPECT_EQ(requests[0].headers["Accept"], "*/*");
}

TEST_F(httpd_curl, is_shown_the_head_of_an_answer)
{
	expect_curl({"-i", base + "/"},
		"HTTP/1.1 200 OK\r\nServer: kvhttpd\r\nPragma: no-cache\r\nExpires: 0\r\n"
		"Content-Length: 3\r\n\r\n</>");
}

TEST_F(httpd_curl, posts_a_form)
{
	std::string found;
	on_request = [&](httpd_conn *conn) {
		char *value = http_req_lookup_param(conn, "Name");
		respond(conn, 200, value ? value : "(null)");
		free(value);
		return 1;
	};
	expect_curl({"--data-urlencode", "x=&", "--data-urlencode", "name=a b/\xc3\xa9&=%", base + "/form"},
		"a b/\xc3\xa9&=%");
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_EQ(requests[0].method, HTTPD_METHOD_POST);
	EXPECT_EQ(requests[0].headers["Content-Type"], "application/x-www-form-urlencoded");
}

TEST_F(httpd_curl, posts_a_large_body)
{
	std::string body;
	for (int i = 0; body.size() < 66000; ++i) // with its head below what may arrive together
		body += std::to_string(i) + ",";
	body.resize(66000);
	char name[] = "/tmp/apbase-test-XXXXXX";
	support::owned_fd file{mkostemp(name, O_CLOEXEC)};
	ASSERT_TRUE(support::write_all(file.get(), body));
	std::vector<std::string> arguments = {"-H", "Expect:", "--data-binary", "@"s + name, base + "/"};
	curl_result got = curl(arguments);
	EXPECT_EQ(got.status, 0);
	EXPECT_TRUE(got.out == "</>" + body) << got.out.substr(0, 200);
	ASSERT_TRUE(support::write_all(file.get(), std::string(561, 'x'))); // one byte too much in all
	got = curl(arguments);
	EXPECT_THAT(got.out, HasSubstr("<h1>400 - Bad Request</h1>"));
	unlink(name);
}

TEST_F(httpd_curl, gets_two_pages_over_one_connection)
{
	curl_result got = curl({"-w", "(%{num_connects})", base + "/1", base + "/2"});
	EXPECT_EQ(got.out, "</1>(1)</2>(0)");
	EXPECT_EQ(requests.size(), 2u);
}

TEST_F(httpd_curl, connects_again_after_connection_close)
{
	curl_result got =
		curl({"-H", "Connection: close", "-w", "(%{num_connects})", base + "/1", base + "/2"});
	EXPECT_EQ(got.out, "</1>(1)</2>(1)");
	ASSERT_EQ(requests.size(), 2u);
	EXPECT_TRUE(requests[0].close);
}

TEST_F(httpd_curl, connects_again_with_http_1_0)
{
	curl_result got = curl({"--http1.0", "-i", base + "/1", base + "/2"});
	EXPECT_EQ(got.status, 0);
	EXPECT_THAT(got.out, StartsWith("HTTP/1.0 200 OK\r\n"));
	EXPECT_THAT(got.out, HasSubstr("</1>HTTP/1.0 200 OK\r\n"));
	ASSERT_EQ(requests.size(), 2u);
	EXPECT_EQ(requests[1].version, 0);
}

TEST_F(httpd_curl, sends_other_methods)
{
	on_request = [](httpd_conn *conn) {
		if (conn->method != HTTPD_METHOD_OTHER)
			return httpd_fail(conn, conn->version, 404);
		if (std::string(conn->stream.rx->data, 5) == "HEAD ") {
			conn->close_requested = 1;
			return write_text(conn, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n");
		}
		return httpd_fail(conn, conn->version, 405);
	};
	curl_result got = curl({"-I", base + "/"});
	EXPECT_EQ(got.status, 0);
	EXPECT_EQ(got.out, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n");
	for (const char *method : {"PUT", "DELETE", "OPTIONS", "PATCH"}) {
		got = curl({"-X", method, "-i", base + "/"});
		EXPECT_EQ(got.status, 0);
		EXPECT_EQ(got.out, error_answer(1, 405)) << method;
	}
}

TEST_F(httpd_curl, uploads_with_put)
{
	char name[] = "/tmp/apbase-test-XXXXXX";
	support::owned_fd file{mkostemp(name, O_CLOEXEC)};
	ASSERT_TRUE(support::write_all(file.get(), "uploaded"));
	expect_curl({"-T", name, base + "/file"}, "</file>uploaded");
	unlink(name);
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_EQ(requests[0].method, HTTPD_METHOD_OTHER);
}

TEST_F(httpd_curl, that_expects_100_continue_gets_none_and_sends_its_body_after_a_while)
{
	expect_curl({"-H", "Expect: 100-continue", "--expect100-timeout", "0.05", "-d", "body", base + "/"},
		"</>body");
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_EQ(requests[0].headers["Expect"], "100-continue");
}

TEST_F(httpd_curl, that_sends_chunks_is_not_understood)
{
	curl_result got = curl({"-H", "Transfer-Encoding: chunked", "-H", "Connection: close", "-d", "body",
		"-i", base + "/"});
	EXPECT_THAT(got.out, HasSubstr("</>"));
	ASSERT_EQ(requests.size(), 1u);
	EXPECT_EQ(requests[0].headers["Transfer-Encoding"], "chunked");
	EXPECT_EQ(requests[0].body, "");
}

TEST_F(httpd_curl, is_shown_error_pages)
{
	on_request = [](httpd_conn *conn) { return httpd_fail(conn, conn->version, 404); };
	expect_curl({"-i", base + "/"}, error_answer(1, 404));
	expect_curl({"-i", "-H", "Broken;", base + "/"}, error_answer(1, 400)); // "Broken:" and nothing
	expect_curl({"-i", "--request-target", "*", base + "/"}, error_answer(0, 400));
}

TEST_F(httpd_curl, gets_a_large_page_slowly)
{
	std::string large(3'000'000, 'x');
	on_request = [&](httpd_conn *conn) {
		respond(conn, 200, large);
		return 0;
	};
	curl_result got = curl({"--limit-rate", "5M", base + "/"});
	EXPECT_EQ(got.status, 0);
	EXPECT_TRUE(got.out == large) << got.out.size();
}

TEST_F(httpd_curl, gets_a_deferred_answer)
{
	httpd_conn *deferred = nullptr;
	support::timer later([&](support::timer *) {
		respond(deferred, 200, "late " + request_of(deferred).target);
		httpd_defer_complete(deferred, 1);
	});
	on_request = [&](httpd_conn *conn) {
		httpd_defer(conn);
		deferred = conn;
		evloop_timeout_set(&later, 20);
		return 1;
	};
	curl_result got = curl({"-w", "(%{num_connects})", base + "/1", base + "/2"});
	EXPECT_EQ(got.out, "late /1(1)late /2(0)");
}

TEST_F(httpd_curl, knows_the_address_its_connection_came_from)
{
	uint32_t address = 0;
	on_request = [&](httpd_conn *conn) {
		address = conn->arg;
		respond(conn, 200, "");
		return 1;
	};
	curl({base + "/"});
	EXPECT_EQ(address, htonl(INADDR_LOOPBACK));
}

TEST_F(httpd_curl, decodes_a_path_as_the_server_does)
{
	std::string path;
	on_request = [&](httpd_conn *conn) {
		path = conn->decoded_path;
		respond(conn, 200, "");
		return 1;
	};
	curl({base + "/a%20b"});
	EXPECT_EQ(path, "/a b H");
}
