// What a peer can make the server hold, and random traffic through all of it.
#include "tests/httpd/fixture.h"

#include <algorithm>
#include <iterator>
#include <random>
#include <set>

#include "lib/log.h"

using namespace http_test;

// ---- What a peer can make the server hold ----

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
	// Less under way than one request may have, so that no request is refused for what comes after it.
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

// ---- All of it at once ----

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
