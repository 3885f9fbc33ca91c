// Helpers of the tests of retry requests: a request whose callbacks the test chooses, and a fixture with a bus,
// a client and servers.
//
// Delays are read from the timers, and made to pass by moving `expires`. For something to happen inside a
// look-up, it waits in the context's socket when the look-up begins.
#pragma once
#include <functional>
#include <memory>
#include <string>

#include "lib/sock.h"
#include "lib/time.h"
#include "lib/ubus.h"
#include "tests/support/ubus.h"

namespace retry_support
{

using namespace support;

inline constexpr char object_path[] = "owner";
inline constexpr char missing[] = "ubus_retry_req owner.go: can't lookup object\n";

// What prepare_cb does for every request, since it is given nothing but the buffer; and how often it was called.
inline std::function<int(blob_buf *)> prepare;
inline int preparations;

inline int prepare_as_told(blob_buf *buf)
{
	++preparations;
	auto copy = prepare;
	return copy ? copy(buf) : 0;
}

inline int put_json(blob_buf *buf, const std::string &text)
{
	return blobmsg_add_field(
		buf, BLOBMSG_TYPE_UNSPEC, "json", text.data(), static_cast<unsigned int>(text.size()));
}

// A request that counts the data it gets. It is aborted before it is released.
struct retry : ubus_retry_request {
	int data_count = 0;
	std::function<void(blob_attr *)> on_data;

	explicit retry(ubus_context **place, const char *method_name = "go", const char *path = object_path)
	{
		init(place, method_name, path);
	}
	retry(const retry &) = delete;
	retry &operator=(const retry &) = delete;
	~retry() { ubus_retry_request_abort(this); }

	void init(ubus_context **place, const char *method_name, const char *path)
	{
		EXPECT_EQ(ubus_retry_request_init(this, place, method_name, path, prepare_as_told, got_data),
			0);
	}
	int invoke() { return ubus_retry_request_invoke(this); }
	int abort() { return ubus_retry_request_abort(this); }

	// `pending` and the two timers in one word.
	std::string state() const
	{
		if (pending && reply_timer.pending && !retry_timer.pending)
			return "in flight";
		if (!pending && !reply_timer.pending && retry_timer.pending)
			return "waiting";
		if (!pending && !reply_timer.pending && !retry_timer.pending)
			return "at rest";
		if (pending && !reply_timer.pending && !retry_timer.pending)
			return "aborted in flight";
		return "none: " + std::to_string(pending) + std::to_string(reply_timer.pending) +
		       std::to_string(retry_timer.pending);
	}

private:
	static void got_data(ubus_request *request, int type, blob_attr *message)
	{
		retry *self = static_cast<retry *>(ubus_req_to_retry_request(request));
		EXPECT_EQ(type, UBUS_MSG_DATA);
		++self->data_count;
		if (auto copy = self->on_data)
			copy(message);
	}
};

// Makes `call` run as soon as the context is read, as the completion of a request that the bus daemon itself
// refuses.
class interruption
{
	ubus_request request_{};
	ubus_context *ctx_;
	std::function<void()> call_;

	static int unread_bytes(int fd)
	{
		int count = -1;
		EXPECT_EQ(ioctl(fd, FIONREAD, &count), 0);
		return count;
	}
	static void on_complete(ubus_request *request, int)
	{
		interruption *self = static_cast<interruption *>(request->priv);
		self->ctx_ = nullptr;
		self->call_();
	}

public:
	interruption(ubus_context *ctx, std::function<void()> call) : ctx_(ctx), call_(std::move(call))
	{
		int unread_before = unread_bytes(ctx->sock.fd);
		EXPECT_EQ(ubus_invoke_async(
				  ctx, UBUS_SYSTEM_OBJECT_EVENT, "no such method", nullptr, &request_),
			0);
		request_.priv = this;
		request_.complete_cb = on_complete;
		ubus_complete_request_async(ctx, &request_);
		EXPECT_TRUE(eventually([&] { return unread_bytes(ctx->sock.fd) > unread_before; }));
	}
	interruption(const interruption &) = delete;
	interruption &operator=(const interruption &) = delete;
	~interruption()
	{
		if (ctx_)
			ubus_abort_request(ctx_, &request_);
	}
};

// The timer was set for `ms` milliseconds from a moment in [from, to]. What a timer's callback sets without a
// delay counts from the next microsecond at the earliest.
inline void expect_due_in(const evloop_timeout &timer, int64_t ms, int64_t from_us, int64_t to_us)
{
	EXPECT_TRUE(timer.pending);
	EXPECT_GE(timer.expires, from_us + ms * 1000);
	EXPECT_LE(timer.expires, to_us + (ms ? ms * 1000 : 1));
}

inline void make_due(evloop_timeout *timer)
{
	EXPECT_EQ(evloop_timeout_cancel(timer), 0);
	timer->expires = 0;
	evloop_timeout_add(timer);
}

// Keeps the delay from passing by itself while something else takes its time.
inline void postpone(evloop_timeout *timer)
{
	EXPECT_EQ(evloop_timeout_cancel(timer), 0);
	evloop_timeout_set(timer, 100 * deadline_ms);
}

// Makes the delay pass and the loop notice.
inline void let_pass(evloop_timeout *timer)
{
	make_due(timer);
	evloop_handle_timeouts();
}

inline bool run_until_called(object_server &server, size_t count)
{
	return run_until([&] { return server.calls().size() >= count; });
}

// Sends the request; whether the server has then been called.
inline bool invoke_reaches(retry &request, object_server &server)
{
	EXPECT_EQ(request.invoke(), 0);
	return run_until_called(server, 1);
}

inline bool run_until_at_rest(const retry &request)
{
	return run_until([&] { return request.state() == "at rest"; });
}

// When this returns, all that the server has done is on its way to the client: the bus daemon takes the messages
// of one client in order.
inline void fence(object_server &server)
{
	server.add("fence");
	server.remove("fence");
}

class ubus_retry : public bus_test
{
protected:
	void SetUp() override
	{
		prepare = nullptr;
		preparations = 0;
		bus_test::SetUp();
	}

	std::unique_ptr<object_server> serve(const char *path = object_path) const
	{
		auto server = std::make_unique<object_server>(bus->path());
		server->add(path);
		return server;
	}
	// A server whose calls stay unanswered until `release`.
	std::unique_ptr<object_server> serve_and_hold() const
	{
		auto server = serve();
		server->hold();
		return server;
	}
	// All that the server has sent so far has been handled: it comes before the answer to a look-up.
	void serve_all(object_server &server)
	{
		fence(server);
		uint32_t id;
		ubus_lookup_id(client.ctx, object_path, &id);
		run_passes(3);
	}
	static void answer_all_and_finish(object_server &server, const retry &request, int64_t count = 1)
	{
		EXPECT_EQ(server.release(0), count);
		EXPECT_TRUE(run_until_at_rest(request));
	}
	// From here on it answers no look-up.
	void stop_bus() const
	{
		siginfo_t info;
		::kill(bus->pid(), SIGSTOP);
		EXPECT_EQ(waitid(P_PID, static_cast<id_t>(bus->pid()), &info, WSTOPPED), 0);
	}
	void restart_bus(object_server &server)
	{
		bus->restart();
		ASSERT_EQ(client.reconnect(bus->path()), 0);
		server.reconnect();
	}
};

} // namespace retry_support
