// A server and its peers in one process: passes of the loop until there is nothing left to do, a client
// that never blocks, and a handler that answers with all it was given. A program that includes this is linked
// with test_system_calls.
#pragma once
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "lib/evloop.h"
#include "lib/httpd.h"
#include "lib/time.h"
#include "tests/support/http_corpus.h"
#include "tests/support/support.h"
#include "tests/support/system_calls.h"

namespace http_test
{

// The loop's waits.
struct wait_counts {
	long calls = 0;
	long events = 0;
	int last = 0; // what the last one returned
};
inline wait_counts waits;

inline auto counting_waits =
	system_calls::epoll_wait.replace([](int fd, epoll_event *events, int count_max, int timeout_ms) {
		int count = system_calls::epoll_wait.next(fd, events, count_max, timeout_ms);
		waits.calls++;
		waits.last = count;
		if (count > 0)
			waits.events += count;
		return count;
	});

// Passes until no descriptor is ready and no timeout is due. A loop that never gets there spins.
inline void settle()
{
	constexpr int passes_max = 200'000;
	for (int pass = 0; pass < passes_max; ++pass) {
		evloop_handle_timeouts();
		long calls = waits.calls;
		evloop_handle_ios(0);
		bool idle = waits.calls != calls && waits.last == 0;
		if (idle && evloop_get_next_timeout() != 0)
			return;
	}
	ADD_FAILURE() << "the loop spins";
}

// Passes that never wait, until `condition` holds: for one that moves a peer along. False at the deadline.
inline bool poll_until(const std::function<bool()> &condition)
{
	int64_t end_ms = support::now_ms() + support::deadline_ms;
	while (!condition()) {
		if (support::now_ms() > end_ms)
			return false;
		support::run_pass();
	}
	return true;
}

// Fires a pending timeout now, as if its time had come.
inline void make_due(evloop_timeout *timeout)
{
	ASSERT_EQ(evloop_timeout_cancel(timeout), 0) << "it is not pending";
	timeout->expires = 1; // before whatever else is due
	evloop_timeout_add(timeout);
}

// One end of a connection; never blocks and never raises SIGPIPE.
class client
{
	support::owned_fd fd_;
	bool ended_ = false;
	bool reset_ = false;

public:
	std::string got;                 // all that has been received
	std::vector<std::string> pieces; // the same, as each read returned it

	explicit client(support::owned_fd fd = support::owned_fd()) : fd_(std::move(fd)) {}

	int fd() const { return fd_.get(); }
	bool ended() const { return ended_; } // end of file, or a reset
	bool was_reset() const { return reset_; }
	void close() { fd_.reset(); }
	void close_sending() { shutdown(fd_.get(), SHUT_WR); }
	void close_with_reset()
	{
		linger at_once{1, 0};
		setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
		fd_.reset();
	}

	// How many bytes the kernel took.
	size_t send_some(std::string_view bytes)
	{
		size_t done = 0;
		while (done < bytes.size()) {
			ssize_t count = ::send(fd_.get(), bytes.data() + done, bytes.size() - done,
				MSG_NOSIGNAL | MSG_DONTWAIT);
			if (count <= 0)
				break;
			done += static_cast<size_t>(count);
		}
		return done;
	}

	// Takes at most `count_max` of what is there; how many bytes that was.
	size_t receive(size_t count_max = SIZE_MAX)
	{
		std::vector<char> chunk(65536);
		size_t done = 0;
		while (done < count_max && !ended_) {
			ssize_t count = recv(fd_.get(), chunk.data(),
				std::min(chunk.size(), count_max - done), MSG_DONTWAIT);
			if (count < 0 && errno == EAGAIN)
				break;
			if (count <= 0) {
				ended_ = true;
				reset_ = count < 0;
				break;
			}
			pieces.emplace_back(chunk.data(), static_cast<size_t>(count));
			got += pieces.back();
			done += static_cast<size_t>(count);
		}
		return done;
	}

	// Reads, and lets the server go on, until nothing more comes.
	void drain()
	{
		do
			settle();
		while (receive() > 0);
	}

	// Sends as fast as the server takes it, reading nothing; false if the peer ended or took no more.
	bool send(std::string_view bytes)
	{
		while (!bytes.empty()) {
			size_t count = send_some(bytes);
			bytes.remove_prefix(count);
			settle();
			if (count == 0)
				return false;
		}
		return true;
	}
};

inline request request_of(const httpd_conn *conn)
{
	auto text = [](const char *bytes, int32_t length) {
		return bytes ? std::optional(std::string(bytes, static_cast<size_t>(length))) : std::nullopt;
	};
	request seen;
	seen.version = conn->version;
	seen.method = conn->method;
	seen.target = text(conn->target, conn->target_len).value_or("(null)");
	seen.host = text(conn->host, conn->host_len);
	seen.path = text(conn->path, conn->path_len);
	seen.query = text(conn->query, conn->query_len);
	seen.body = text(conn->body, conn->body_len);
	seen.decoded_path = conn->decoded_path;
	seen.close = conn->close_requested != 0;
	uint32_t count = 0;
	void **names = htable_get_keys(conn->headers, &count);
	for (uint32_t i = 0; i < count; ++i) {
		const char *value = static_cast<const char *>(htable_lookup(conn->headers, names[i]));
		seen.headers[static_cast<const char *>(names[i])] = value ? value : "(null)";
	}
	free(names);
	return seen;
}

// What holds for every request that a handler is shown.
inline void expect_consistent(const httpd_conn *conn)
{
	const buffer *rx = conn->stream.rx;
	ASSERT_NE(rx, nullptr);
	EXPECT_EQ(conn->head_end - rx->data, conn->head_len);
	EXPECT_EQ(conn->body, conn->head_end);
	EXPECT_EQ(static_cast<uint32_t>(conn->body_len), conn->content_length);
	EXPECT_LE(conn->head_len + conn->body_len, rx->length);
	EXPECT_GE(conn->target, rx->data);
	EXPECT_LE(conn->target + conn->target_len, conn->head_end);
	EXPECT_GE(conn->head_start, conn->target + conn->target_len);
	EXPECT_EQ(std::string(conn->head_start - 2, 2), "\r\n");
	EXPECT_EQ(std::string(conn->head_end - 4, 4), "\r\n\r\n");
	EXPECT_EQ(conn->state, HTTPD_STATE_DISPATCH);
	EXPECT_EQ(conn->host == nullptr, conn->host_len == 0);
	EXPECT_EQ(conn->path == nullptr, conn->path_len == 0);
	EXPECT_EQ(conn->query == nullptr, conn->query_len == 0);
	EXPECT_LE(rx->length, HTTPD_RX_BYTES_MAX);
}

inline int32_t write_text(httpd_conn *conn, std::string_view text)
{
	return stream_write(&conn->stream, text.data(), static_cast<uint32_t>(text.size()));
}

// What the handler does with a request; set by each test.
inline std::function<int32_t(httpd_conn *)> on_request;
inline std::vector<request> requests; // all that the handler was shown

inline int32_t call_on_request(httpd_conn *conn)
{
	requests.push_back(request_of(conn));
	expect_consistent(conn);
	auto copy = on_request;
	return copy(conn);
}

inline int32_t answer_with_description(httpd_conn *conn)
{
	write_text(conn, describe(request_of(conn)));
	return 1;
}

inline httpd_conn *conn_of(httpd_link *link)
{
	void *conn = reinterpret_cast<char *>(link) - offsetof(httpd_conn, node);
	return static_cast<httpd_conn *>(conn);
}

// A server without a listening socket: clients are handed to it as accepted descriptors.
class server_test : public support::loop_test
{
protected:
	httpd_ctx ctx{};

	void SetUp() override
	{
		loop_test::SetUp();
		requests.clear();
		on_request = answer_with_description;
		httpd_ctx_init(&ctx, call_on_request);
	}
	void TearDown() override
	{
		httpd_ctx_cleanup(&ctx);
		settle();
		EXPECT_EQ(connection_count(), 0);
		on_request = nullptr;
		requests.clear();
		loop_test::TearDown();
	}

	int connection_count() const
	{
		int count = 0;
		for (const httpd_link *link = ctx.connections.next; link != &ctx.connections;
			link = link->next)
			++count;
		return count;
	}
	// The connection taken up last.
	httpd_conn *newest() { return conn_of(ctx.connections.next); }

	client connect(int type = SOCK_STREAM, uint32_t arg = 0)
	{
		support::socket_pair pair(type);
		httpd_accept(pair.near.give(), arg, &ctx);
		return client(std::move(pair.far));
	}
	client connect_tcp(uint32_t arg = 0)
	{
		support::loopback_listener listener;
		client far(support::connect_to(listener.port));
		httpd_accept(listener.accept_one().give(), arg, &ctx);
		return far;
	}
	// Sends a request and returns all that is answered; the connection ends here.
	std::string ask(std::string_view bytes)
	{
		client far = connect();
		far.send(bytes);
		far.drain();
		far.close();
		settle();
		return far.got;
	}
	// The only request that `bytes` make.
	request only_request(std::string_view bytes)
	{
		requests.clear();
		ask(bytes);
		EXPECT_EQ(requests.size(), 1u);
		return requests.empty() ? request() : requests[0];
	}
};

} // namespace http_test
