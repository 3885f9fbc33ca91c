// Retry requests of lib/ubus, and what becomes of them, of subscriptions and of other calls when the bus, the
// owner of an object or the context goes away and comes back.
//
// Delays are read from the timers, and made to pass by moving `expires`. What has to happen inside a look-up
// waits in the context's socket when the look-up begins.
#include "lib/ubus.h"

#include <array>
#include <type_traits>

#include "lib/sock.h"
#include "lib/time.h"
#include "tests/support/syslog_messages.h"
#include "tests/support/ubus.h"

using namespace support;

namespace
{

static_assert(UBUS_RETRY_DELAY_MS == 2000);
static_assert(std::is_same_v<decltype(ubus_retry_request::method), char[32]>);
static_assert(std::is_same_v<decltype(ubus_retry_request::object), char[32]>);

constexpr char object_path[] = "owner";
constexpr char missing[] = "ubus_retry_req owner.go: can't lookup object\n";

// What prepare_cb, which is given nothing but the buffer, does for every request; and its calls.
std::function<int(blob_buf *)> prepare;
int preparations;

int prepare_as_told(blob_buf *buf)
{
	++preparations;
	auto copy = prepare;
	return copy ? copy(buf) : 0;
}

int put_json(blob_buf *buf, const std::string &text)
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

	// One word for `pending` and the two timers together.
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
void expect_due_in(const evloop_timeout &timer, int64_t ms, int64_t from_us, int64_t to_us)
{
	EXPECT_TRUE(timer.pending);
	EXPECT_GE(timer.expires, from_us + ms * 1000);
	EXPECT_LE(timer.expires, to_us + (ms ? ms * 1000 : 1));
}

void make_due(evloop_timeout *timer)
{
	EXPECT_EQ(evloop_timeout_cancel(timer), 0);
	timer->expires = 0;
	evloop_timeout_add(timer);
}

// Keeps the delay from passing by itself while something else takes long.
void put_off(evloop_timeout *timer)
{
	EXPECT_EQ(evloop_timeout_cancel(timer), 0);
	evloop_timeout_set(timer, 100 * deadline_ms);
}

// Makes the delay pass and the loop notice.
void let_pass(evloop_timeout *timer)
{
	make_due(timer);
	evloop_handle_timeouts();
}

bool run_until_called(object_server &server, size_t count)
{
	return run_until([&] { return server.calls().size() >= count; });
}

bool run_until_at_rest(const retry &request)
{
	return run_until([&] { return request.state() == "at rest"; });
}

// What the server has done is on its way to the client when this returns: the bus daemon takes one client's
// messages in their order.
void fence(object_server &server)
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
		messages.clear();
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

// The two ways in which something happens inside a look-up: in the answer to another request, which is
// handled as it is read, and in a call of the client's own object, which is handled just before the look-up
// returns.
class ubus_retry_inside_lookup : public ubus_retry, public testing::WithParamInterface<const char *>
{
	std::unique_ptr<interruption> interruption_;
	std::unique_ptr<probe> probe_;

protected:
	void SetUp() override
	{
		ubus_retry::SetUp();
		probe_ = std::make_unique<probe>(*bus, client);
	}
	void TearDown() override
	{
		interruption_.reset();
		probe_.reset();
		ubus_retry::TearDown();
	}
	void in_next_lookup(std::function<void()> call)
	{
		if (GetParam() == std::string("completion")) {
			interruption_ = std::make_unique<interruption>(client.ctx, std::move(call));
			return;
		}
		probe_->on_call = std::move(call);
		probe_->send_call();
	}
};

INSTANTIATE_TEST_SUITE_P(each_way, ubus_retry_inside_lookup, testing::Values("completion", "handler"),
	[](const auto &way) { return std::string(way.param); });

std::string name_of_length(size_t length)
{
	std::string name;
	for (size_t i = 0; i < length; ++i)
		name += static_cast<char>('a' + i % 26);
	return name;
}

// A record's bytes, as they are before it is initialised.
using record_bytes = std::array<unsigned char, sizeof(ubus_retry_request)>;

record_bytes bytes_of(const ubus_retry_request &request)
{
	record_bytes bytes;
	memcpy(bytes.data(), static_cast<const void *>(&request), bytes.size());
	return bytes;
}

ubus_retry_request dirty_record()
{
	ubus_retry_request request;
	memset(static_cast<void *>(&request), 0xa5, sizeof(request));
	return request;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// Preparing a request.

TEST_F(ubus_retry, init_makes_a_record_out_of_any_bytes)
{
	ubus_retry_request request = dirty_record();
	ASSERT_EQ(ubus_retry_request_init(&request, &client.ctx, "go", "owner", prepare_as_told, nullptr), 0);

	EXPECT_EQ(request.ctx, &client.ctx);
	EXPECT_EQ(std::string(request.method, sizeof(request.method)), "go" + std::string(30, '\0'));
	EXPECT_EQ(std::string(request.object, sizeof(request.object)), "owner" + std::string(27, '\0'));
	EXPECT_EQ(request.prepare_cb, prepare_as_told);
	EXPECT_EQ(request.data_cb, nullptr);
	EXPECT_EQ(request.req.list.next, nullptr);
	EXPECT_EQ(request.req.complete_cb, nullptr);
	EXPECT_EQ(request.req.ctx, nullptr);
	EXPECT_EQ(request.buf.head, nullptr);
	EXPECT_EQ(request.buf.buf, nullptr);
	EXPECT_EQ(request.buf.grow, nullptr);
	EXPECT_EQ(request.buf.buflen, 0);
	EXPECT_EQ(request.retry_timer.pending, 0);
	EXPECT_EQ(request.reply_timer.pending, 0);
	EXPECT_NE(request.retry_timer.cb, nullptr);
	EXPECT_NE(request.reply_timer.cb, nullptr);
	EXPECT_FALSE(request.pending);
}

TEST_F(ubus_retry, init_sends_nothing_and_looks_at_no_context)
{
	auto server = serve();
	ubus_context *place = nullptr;
	retry with_context{&client.ctx}, without_context{&place};
	fence(*server);
	run_passes(5);
	EXPECT_EQ(server->calls().size(), 0u);
	EXPECT_EQ(preparations, 0);
	EXPECT_EQ(with_context.state(), "at rest");
	EXPECT_EQ(without_context.state(), "at rest");
	EXPECT_FALSE(client.request_is_linked());
}

TEST_F(ubus_retry, init_without_a_place_for_the_context_is_refused)
{
	ubus_retry_request request = dirty_record();
	record_bytes before = bytes_of(request);
	EXPECT_EQ(ubus_retry_request_init(&request, nullptr, "go", "owner", nullptr, nullptr), -EINVAL);
	EXPECT_EQ(take_log(), "ubus_init_retry_request: null ubus ctx\n");
	EXPECT_EQ(bytes_of(request), before);
}

TEST_F(ubus_retry, init_with_a_method_of_32_characters_is_refused)
{
	ubus_retry_request request = dirty_record();
	record_bytes before = bytes_of(request);
	for (size_t length : {32, 33, 5000}) {
		EXPECT_EQ(ubus_retry_request_init(&request, &client.ctx, name_of_length(length).c_str(),
				  "owner", nullptr, nullptr),
			-EINVAL);
		EXPECT_EQ(take_log(), "ubus_init_retry_request: method too long\n");
		EXPECT_EQ(bytes_of(request), before);
	}
}

TEST_F(ubus_retry, init_with_an_object_of_32_characters_is_refused)
{
	ubus_retry_request request = dirty_record();
	record_bytes before = bytes_of(request);
	for (size_t length : {32, 33, 5000}) {
		EXPECT_EQ(ubus_retry_request_init(&request, &client.ctx, "go", name_of_length(length).c_str(),
				  nullptr, nullptr),
			-EINVAL);
		EXPECT_EQ(take_log(), "ubus_init_retry_request: object too long\n");
		EXPECT_EQ(bytes_of(request), before);
	}
}

TEST_F(ubus_retry, init_names_the_first_of_several_mistakes)
{
	ubus_retry_request request = dirty_record();
	record_bytes before = bytes_of(request);
	std::string long_name = name_of_length(32);
	EXPECT_EQ(ubus_retry_request_init(
			  &request, nullptr, long_name.c_str(), long_name.c_str(), nullptr, nullptr),
		-EINVAL);
	EXPECT_EQ(take_log(), "ubus_init_retry_request: null ubus ctx\n");
	EXPECT_EQ(ubus_retry_request_init(
			  &request, &client.ctx, long_name.c_str(), long_name.c_str(), nullptr, nullptr),
		-EINVAL);
	EXPECT_EQ(take_log(), "ubus_init_retry_request: method too long\n");
	EXPECT_EQ(bytes_of(request), before);
}

TEST_F(ubus_retry, names_of_31_characters_are_called)
{
	std::string method = name_of_length(31), path = name_of_length(31);
	auto server = serve(path.c_str());
	retry request{&client.ctx, method.c_str(), path.c_str()};
	EXPECT_EQ(request.method, method);
	EXPECT_EQ(request.object, path);
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	ASSERT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(server->calls()[0].method, method);
	EXPECT_EQ(server->calls()[0].object, path);
}

TEST_F(ubus_retry, names_are_copied)
{
	auto server = serve();
	char method[] = "go", path[] = "owner";
	retry request{&client.ctx, method, path};
	memset(method, 'x', strlen(method));
	memset(path, 'x', strlen(path));
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	ASSERT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(server->calls()[0].method, "go");
}

TEST_F(ubus_retry, everything_it_logs_has_priority_3)
{
	log_open(LOG_DEST_SYSLOG, LOG_USER, "test");
	auto server = serve();
	ubus_retry_request refused;
	std::string long_name = name_of_length(32);
	ubus_retry_request_init(&refused, nullptr, "go", "owner", nullptr, nullptr);
	ubus_retry_request_init(&refused, &client.ctx, long_name.c_str(), "owner", nullptr, nullptr);
	ubus_retry_request_init(&refused, &client.ctx, "go", long_name.c_str(), nullptr, nullptr);
	retry no_object{&client.ctx, "go", "nobody"}, request{&client.ctx};
	no_object.invoke();
	prepare = [](blob_buf *) { return -5; };
	request.invoke();
	prepare = [](blob_buf *buf) { return put_json(buf, std::string(wire::body_bytes_max, 'x')); };
	request.invoke();
	request.abort();
	request.ctx = nullptr;
	request.invoke();
	EXPECT_EQ(messages, (std::vector<logged>{
				    {3, "ubus_init_retry_request: null ubus ctx\n"},
				    {3, "ubus_init_retry_request: method too long\n"},
				    {3, "ubus_init_retry_request: object too long\n"},
				    {3, "ubus_retry_req nobody.go: can't lookup object\n"},
				    {3, "ubus_retry_req owner.go: message packing err: -5\n"},
				    {3, "ubus_retry_req owner.go: invoke: Invalid argument\n"},
				    {3, "ubus_retry_req: owner.go: invalid ctx ptr\n"},
			    }));
}

// ---------------------------------------------------------------------------------------------------------
// An attempt that goes well.

TEST_F(ubus_retry, invoke_sends_the_prepared_message_and_waits_two_seconds_for_its_answer)
{
	auto server = serve_and_hold();
	prepare = [](blob_buf *buf) { return put_json(buf, R"({"a":1})"); };
	retry request{&client.ctx};
	int64_t before = time_now();
	EXPECT_EQ(request.invoke(), 0);
	expect_due_in(request.reply_timer, 2000, before, time_now());
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 1);

	ASSERT_TRUE(run_until_called(*server, 1));
	EXPECT_EQ(server->calls()[0].object, "owner");
	EXPECT_EQ(server->calls()[0].method, "go");
	EXPECT_EQ(server->calls()[0].json(), R"({"a":1})");
	EXPECT_EQ(preparations, 1);
	answer_all_and_finish(*server, request);
}

TEST_F(ubus_retry, message_is_released_as_soon_as_it_is_sent)
{
	auto server = serve_and_hold();
	prepare = [](blob_buf *buf) { return put_json(buf, std::string(10'000, ' ')); };
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.buf.head, nullptr);
	EXPECT_EQ(request.buf.buf, nullptr);
}

TEST_F(ubus_retry, request_without_a_prepare_cb_sends_an_empty_message)
{
	auto server = serve();
	ubus_retry_request request;
	ASSERT_EQ(ubus_retry_request_init(&request, &client.ctx, "go", "owner", nullptr, nullptr), 0);
	EXPECT_EQ(ubus_retry_request_invoke(&request), 0);
	EXPECT_TRUE(run_until([&] { return !request.pending; }));
	ASSERT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(server->calls()[0].message, "");
}

TEST_F(ubus_retry, success_ends_the_retrying)
{
	auto server = serve();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(request.state(), "at rest");
}

TEST_F(ubus_retry, data_cb_gets_the_replys_data_and_finds_its_request)
{
	auto server = serve();
	server->answer(0, R"({"led":"on"})");
	retry request{&client.ctx};
	std::string reply;
	request.on_data = [&](blob_attr *message) {
		json_t *json = nullptr;
		ASSERT_EQ(ubus_parse_json_msg(message, &json), 0);
		reply = json_string_value(json_object_get(json, "led"));
		json_decref(json);
	};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(request.data_count, 1);
	EXPECT_EQ(reply, "on");
}

TEST_F(ubus_retry, data_without_a_data_cb_is_ignored)
{
	auto server = serve();
	server->answer(0, "{}");
	ubus_retry_request request;
	ASSERT_EQ(ubus_retry_request_init(&request, &client.ctx, "go", "owner", nullptr, nullptr), 0);
	EXPECT_EQ(ubus_retry_request_invoke(&request), 0);
	EXPECT_TRUE(run_until([&] { return !request.pending; }));
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_retry, finished_request_can_be_invoked_again)
{
	auto server = serve();
	retry request{&client.ctx};
	for (size_t count = 1; count <= 3; ++count) {
		EXPECT_EQ(request.invoke(), 0);
		EXPECT_TRUE(run_until_at_rest(request));
		EXPECT_EQ(server->calls().size(), count);
	}
}

TEST_F(ubus_retry, finished_request_can_be_initialised_for_another_call)
{
	auto server = serve();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	request.init(&client.ctx, "other", object_path);
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	ASSERT_EQ(server->calls().size(), 2u);
	EXPECT_EQ(server->calls()[1].method, "other");
}

TEST_F(ubus_retry, invoke_while_in_flight_replaces_the_call)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	request.reply_timer.expires -= 1'500'000; // the order of the only timer does not change
	int64_t before = time_now();
	EXPECT_EQ(request.invoke(), 0);
	expect_due_in(request.reply_timer, 2000, before, time_now());
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 1);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 2u);
}

TEST_F(ubus_retry, invoke_while_waiting_makes_the_attempt_now)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	auto server = serve_and_hold();
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.state(), "in flight");
	ASSERT_TRUE(run_until_called(*server, 1));
	answer_all_and_finish(*server, request);
}

// ---------------------------------------------------------------------------------------------------------
// The object is missing.

TEST_F(ubus_retry, missing_object_is_logged_and_tried_again_in_two_seconds)
{
	retry request{&client.ctx};
	for (int count = 0; count < 5; ++count) {
		int64_t before = time_now();
		if (count == 0) {
			EXPECT_EQ(request.invoke(), -EBUSY);
		} else {
			let_pass(&request.retry_timer);
		}
		expect_due_in(request.retry_timer, 2000, before, time_now());
		EXPECT_EQ(request.state(), "waiting");
		EXPECT_EQ(take_log(), missing);
	}
	EXPECT_EQ(preparations, 0);
	EXPECT_FALSE(client.request_is_linked());
}

TEST_F(ubus_retry, object_that_appears_late_is_called)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	auto server = serve();
	let_pass(&request.retry_timer);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, the_real_delay_passes_on_the_loop)
{
	retry request{&client.ctx};
	int64_t begin = now_ms();
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	auto server = serve();
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_GE(now_ms() - begin, 1999);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, object_whose_id_the_bus_does_not_tell_counts_as_missing)
{
	object_server server{bus->path()};
	server.add_without_type(object_path);
	uint32_t id = 1;
	ASSERT_EQ(ubus_lookup_id(client.ctx, object_path, &id), 0);
	ASSERT_EQ(id, 1u);

	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(preparations, 0);

	server.remove(object_path);
	server.add(object_path);
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server.calls().size(), 1u);
}

TEST_F(ubus_retry, empty_path_names_no_object)
{
	retry request{&client.ctx, "go", ""};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), "ubus_retry_req .go: can't lookup object\n");
	EXPECT_EQ(request.state(), "waiting");
}

TEST_F(ubus_retry, object_is_looked_up_anew_for_every_attempt)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	server->remove(object_path);
	uint32_t id = server->add(object_path);
	let_pass(&request.reply_timer);
	EXPECT_EQ(request.req.peer, id);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, owner_that_restarts_is_called_again)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	server->kill();
	ASSERT_TRUE(wait_until_gone(object_path));

	let_pass(&request.reply_timer);
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(take_log(), missing);
	let_pass(&request.retry_timer);
	EXPECT_EQ(take_log(), missing);

	server = serve();
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, owner_that_dies_of_the_call_is_called_again)
{
	auto server = serve();
	server->end_when_called();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	ASSERT_TRUE(wait_until_gone(object_path));
	server = serve();
	let_pass(&request.reply_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

// ---------------------------------------------------------------------------------------------------------
// The message cannot be made, or not be sent.

TEST_F(ubus_retry, any_result_of_prepare_cb_but_0_is_a_failed_attempt)
{
	auto server = serve();
	retry request{&client.ctx};
	for (int error : {1, -1, -ENOMEM, INT_MAX, INT_MIN}) {
		prepare = [error](blob_buf *) { return error; };
		int64_t before = time_now();
		EXPECT_EQ(request.invoke(), -EBUSY);
		expect_due_in(request.retry_timer, 2000, before, time_now());
		EXPECT_EQ(request.state(), "waiting");
		EXPECT_EQ(take_log(),
			"ubus_retry_req owner.go: message packing err: " + std::to_string(error) + "\n");
		EXPECT_FALSE(client.request_is_linked());
	}
	fence(*server);
	EXPECT_EQ(server->calls().size(), 0u);
}

TEST_F(ubus_retry, message_is_made_anew_for_every_attempt)
{
	auto server = serve();
	retry request{&client.ctx};
	prepare = [](blob_buf *buf) { return put_json(buf, "[\"half\"]"), preparations < 3 ? -7 : 0; };
	EXPECT_EQ(request.invoke(), -EBUSY);
	let_pass(&request.retry_timer);
	EXPECT_EQ(take_log(), "ubus_retry_req owner.go: message packing err: -7\n"
			      "ubus_retry_req owner.go: message packing err: -7\n");
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(preparations, 3);
	ASSERT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(server->calls()[0].message, contents_of(json_message{"[\"half\"]"}.head()));
}

TEST_F(ubus_retry, abort_after_a_failed_attempt_releases_the_message)
{
	auto server = serve();
	retry request{&client.ctx};
	prepare = [](blob_buf *buf) { return put_json(buf, std::string(100'000, 'x')), -1; };
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_NE(request.buf.buf, nullptr);
	take_log();
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.buf.buf, nullptr);
	EXPECT_EQ(request.buf.head, nullptr);
	EXPECT_EQ(request.abort(), 0);
}

TEST_F(ubus_retry, message_too_big_for_the_bus_is_logged_and_tried_again_in_two_seconds)
{
	auto server = serve();
	retry request{&client.ctx};
	prepare = [](blob_buf *buf) { return put_json(buf, std::string(wire::body_bytes_max, 'x')); };
	int64_t before = time_now();
	EXPECT_EQ(request.invoke(), -EBUSY);
	expect_due_in(request.retry_timer, 2000, before, time_now());
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_EQ(take_log(), std::string("ubus_retry_req owner.go: invoke: ") +
				      ubus_strerror(UBUS_STATUS_INVALID_ARGUMENT) + "\n");

	prepare = [](blob_buf *buf) { return put_json(buf, "[]"); };
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	ASSERT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(server->calls()[0].json(), "[]");
}

TEST_F(ubus_retry, abort_after_a_message_that_was_too_big_releases_it)
{
	auto server = serve();
	retry request{&client.ctx};
	prepare = [](blob_buf *buf) { return put_json(buf, std::string(wire::body_bytes_max, 'x')); };
	EXPECT_EQ(request.invoke(), -EBUSY);
	take_log();
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.buf.buf, nullptr);
}

TEST_F(ubus_retry, prepare_cb_may_abort_its_request)
{
	auto server = serve();
	retry request{&client.ctx};
	for (int result : {0, -1}) {
		prepare = [&, result](blob_buf *buf) {
			put_json(buf, std::string(10'000, 'x'));
			EXPECT_EQ(request.abort(), 0);
			put_json(buf, "[]"); // the buffer still belongs to this call
			return result;
		};
		EXPECT_EQ(request.invoke(), -ECANCELED);
		EXPECT_EQ(request.state(), "at rest");
		EXPECT_EQ(request.buf.buf, nullptr);
		EXPECT_FALSE(client.request_is_linked());
	}
	fence(*server);
	EXPECT_EQ(server->calls().size(), 0u);
}

TEST_F(ubus_retry, prepare_cb_may_abort_in_an_attempt_of_the_timers)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	auto server = serve();
	prepare = [&](blob_buf *) { return request.abort(); };
	let_pass(&request.retry_timer);
	EXPECT_EQ(preparations, 1);
	EXPECT_EQ(request.state(), "at rest");
	fence(*server);
	EXPECT_EQ(server->calls().size(), 0u);
}

TEST_F(ubus_retry, prepare_cb_cannot_invoke_its_request)
{
	auto server = serve();
	retry request{&client.ctx};
	prepare = [&](blob_buf *buf) {
		put_json(buf, "[1]");
		EXPECT_EQ(request.invoke(), -EALREADY);
		return 0;
	};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(preparations, 1);
	ASSERT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(server->calls()[0].json(), "[1]");
}

TEST_F(ubus_retry, prepare_cb_that_aborts_cannot_invoke_afterwards)
{
	auto server = serve();
	retry request{&client.ctx};
	prepare = [&](blob_buf *) {
		request.abort();
		EXPECT_EQ(request.invoke(), -EALREADY);
		return 0;
	};
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_EQ(request.state(), "at rest");
	fence(*server);
	EXPECT_EQ(server->calls().size(), 0u);
}

TEST_F(ubus_retry, prepare_cb_may_invoke_another_request)
{
	auto server = serve();
	retry request{&client.ctx}, other{&client.ctx, "other"};
	prepare = [&](blob_buf *) { return preparations == 1 ? other.invoke() : 0; };
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_TRUE(run_until_at_rest(other));
	ASSERT_EQ(server->calls().size(), 2u);
	EXPECT_EQ(server->calls()[0].method, "other");
	EXPECT_EQ(server->calls()[1].method, "go");
}

// ---------------------------------------------------------------------------------------------------------
// Answers that are errors, that are late, or that never come.

TEST_F(ubus_retry, any_status_but_0_is_sent_again_at_once)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	size_t calls = 1;
	for (int status : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 77, -1}) {
		ASSERT_TRUE(run_until_called(*server, calls));
		int64_t before = time_now();
		EXPECT_EQ(server->release(status), 1);
		EXPECT_TRUE(run_until([&] {
			EXPECT_EQ(request.state(), "in flight");
			return server->calls().size() > calls;
		}));
		expect_due_in(request.reply_timer, 2000, before, time_now());
		++calls;
	}
	answer_all_and_finish(*server, request);
	EXPECT_EQ(server->calls().size(), calls);
	EXPECT_EQ(preparations, static_cast<int>(calls));
}

TEST_F(ubus_retry, error_after_data_is_sent_again_and_the_data_is_delivered_twice)
{
	auto server = serve_and_hold();
	server->answer(0, "[1]");
	server->hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	ASSERT_TRUE(run_until_called(*server, 2));
	EXPECT_EQ(request.data_count, 1);
	answer_all_and_finish(*server, request);
	EXPECT_EQ(request.data_count, 2);
}

TEST_F(ubus_retry, error_of_an_object_that_has_gone_since_is_tried_again_in_two_seconds)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.stop_watching();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	server->remove(object_path);
	client.watch_again();
	EXPECT_TRUE(logs(missing));
	EXPECT_EQ(request.state(), "waiting");
}

TEST_F(ubus_retry, silence_of_two_seconds_is_answered_by_another_call_at_once)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	for (int count = 0; count < 3; ++count) {
		int64_t before = time_now();
		let_pass(&request.reply_timer);
		EXPECT_EQ(request.state(), "in flight");
		expect_due_in(request.reply_timer, 2000, before, time_now());
		EXPECT_EQ(client.linked_requests(), 1);
	}
	ASSERT_TRUE(run_until_called(*server, 4));
	answer_all_and_finish(*server, request, 4);
}

TEST_F(ubus_retry, the_real_silence_ends_on_the_loop)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	int64_t begin = now_ms();
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 2));
	EXPECT_GE(now_ms() - begin, 1999);
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, answer_to_a_call_given_up_is_not_taken_for_that_of_the_next)
{
	auto server = serve();
	server->answer(0, "[1]");
	server->hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.stop_watching();
	EXPECT_EQ(server->release(0), 1);
	fence(*server);
	let_pass(&request.reply_timer);
	client.watch_again();

	serve_all(*server);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(request.data_count, 0);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request);
	EXPECT_EQ(request.data_count, 1);
}

TEST_F(ubus_retry, late_error_for_a_call_given_up_causes_no_further_one)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.stop_watching();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	fence(*server);
	let_pass(&request.reply_timer);
	client.watch_again();
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 2u);
	EXPECT_EQ(request.state(), "at rest");
}

TEST_F(ubus_retry, silence_and_a_context_that_has_gone_is_waiting)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	client.free();
	let_pass(&request.reply_timer);
	EXPECT_EQ(request.state(), "waiting");
}

// ---------------------------------------------------------------------------------------------------------
// Inside data_cb.

TEST_F(ubus_retry, data_cb_may_abort_its_request)
{
	auto server = serve();
	server->answer(UBUS_STATUS_UNKNOWN_ERROR, "[1]");
	retry request{&client.ctx};
	request.on_data = [&](blob_attr *) { EXPECT_EQ(request.abort(), 0); };
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until([&] { return request.data_count == 1; }));
	serve_all(*server);
	EXPECT_EQ(request.state(), "aborted in flight");
	EXPECT_EQ(server->calls().size(), 1u);
	EXPECT_FALSE(client.request_is_linked());
}

TEST_F(ubus_retry, request_aborted_in_data_cb_may_be_released_right_after)
{
	auto server = serve();
	server->answer(UBUS_STATUS_UNKNOWN_ERROR, "[1]");
	auto request = std::make_unique<retry>(&client.ctx);
	timer release{[&](timer *) { request.reset(); }};
	request->on_data = [&](blob_attr *) {
		request->abort();
		evloop_timeout_set(&release, 0);
	};
	EXPECT_EQ(request->invoke(), 0);
	EXPECT_TRUE(run_until([&] { return !request; }));
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, invoke_in_data_cb_makes_its_attempt_on_the_next_pass)
{
	auto server = serve();
	server->answer(0, "[1]");
	server->hold();
	retry request{&client.ctx};
	request.on_data = [&](blob_attr *) {
		if (request.data_count > 1)
			return;
		EXPECT_EQ(request.invoke(), -EBUSY);
		EXPECT_EQ(request.state(), "waiting");
		EXPECT_LE(request.retry_timer.expires, time_now() + 1);
		EXPECT_EQ(preparations, 1);
	};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	EXPECT_TRUE(run_until([&] { return request.data_count == 1; }));
	ASSERT_TRUE(run_until_called(*server, 2));
	serve_all(*server); // the first call's error is among it
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(server->calls().size(), 2u);
	answer_all_and_finish(*server, request);
	EXPECT_EQ(request.data_count, 2);
}

TEST_F(ubus_retry, data_cb_may_abort_and_then_invoke)
{
	auto server = serve();
	server->answer(0, "[1]");
	retry request{&client.ctx};
	request.on_data = [&](blob_attr *) {
		if (request.data_count > 1)
			return;
		EXPECT_EQ(request.abort(), 0);
		EXPECT_EQ(request.invoke(), -EBUSY);
	};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until([&] { return request.data_count == 2; }));
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 2u);
}

TEST_F(ubus_retry, data_cb_may_invoke_and_then_abort)
{
	auto server = serve();
	server->answer(UBUS_STATUS_UNKNOWN_ERROR, "[1]");
	retry request{&client.ctx};
	request.on_data = [&](blob_attr *) {
		EXPECT_EQ(request.invoke(), -EBUSY);
		EXPECT_EQ(request.abort(), 0);
	};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until([&] { return request.data_count == 1; }));
	serve_all(*server);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, data_cb_may_invoke_another_request)
{
	auto server = serve();
	server->answer(0, "[1]");
	retry request{&client.ctx}, other{&client.ctx, "other"};
	request.on_data = [&](blob_attr *) { EXPECT_EQ(other.invoke(), 0); };
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until([&] { return other.data_count == 1; }));
	EXPECT_TRUE(run_until_at_rest(other));
	EXPECT_TRUE(run_until_at_rest(request));
}

// The server's data and its status both wait in the socket, and a synchronous call inside data_cb reads the
// status.
class ubus_retry_status_inside_data_cb : public ubus_retry
{
protected:
	std::unique_ptr<object_server> server;
	std::unique_ptr<retry> request;

	void TearDown() override
	{
		request.reset();
		server.reset();
		ubus_retry::TearDown();
	}
	// `call` runs in data_cb when the status has been read.
	void meet(int status, const std::function<void()> &call)
	{
		server = serve();
		server->answer(0, "[1]");
		server->hold();
		request = std::make_unique<retry>(&client.ctx);
		request->on_data = [this, call](blob_attr *) {
			if (request->data_count > 1)
				return;
			uint32_t id;
			EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), 0);
			ASSERT_TRUE(request->req.status_msg);
			call();
		};
		EXPECT_EQ(request->invoke(), 0);
		ASSERT_TRUE(run_until_called(*server, 1));
		client.stop_watching();
		EXPECT_EQ(server->release(status), 1);
		fence(*server);
		client.watch_again();
		EXPECT_TRUE(run_until([&] { return request->data_count == 1; }));
	}
};

TEST_F(ubus_retry_status_inside_data_cb, success_finishes_the_request_after_it)
{
	meet(0, [&] { EXPECT_EQ(request->state(), "in flight"); });
	EXPECT_TRUE(run_until_at_rest(*request));
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry_status_inside_data_cb, error_is_sent_again_after_it)
{
	meet(UBUS_STATUS_UNKNOWN_ERROR, [&] { EXPECT_EQ(preparations, 1); });
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, *request);
	EXPECT_EQ(request->data_count, 2);
}

TEST_F(ubus_retry_status_inside_data_cb, abort_makes_no_further_attempt)
{
	meet(UBUS_STATUS_UNKNOWN_ERROR, [&] { EXPECT_EQ(request->abort(), 0); });
	serve_all(*server);
	EXPECT_EQ(request->state(), "aborted in flight");
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry_status_inside_data_cb, abort_after_a_success_changes_nothing_any_more)
{
	meet(0, [&] { EXPECT_EQ(request->abort(), 0); });
	serve_all(*server);
	EXPECT_EQ(request->state(), "aborted in flight");
	EXPECT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(request->abort(), 0);
}

TEST_F(ubus_retry_status_inside_data_cb, invoke_makes_one_attempt_not_two)
{
	meet(UBUS_STATUS_UNKNOWN_ERROR, [&] { EXPECT_EQ(request->invoke(), -EBUSY); });
	ASSERT_TRUE(run_until_called(*server, 2));
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 2u);
	EXPECT_EQ(request->state(), "in flight");
	answer_all_and_finish(*server, *request);
}

// An owner whose every frame the test chooses. It has been called, and what it answers waits in the socket.
class ubus_retry_data : public ubus_retry
{
	uint32_t object_ = 0;
	wire::received call_;

protected:
	std::optional<raw_client> owner;
	std::unique_ptr<retry> request;
	std::vector<std::string> data;

	void SetUp() override
	{
		ubus_retry::SetUp();
		owner.emplace(bus->path());
		object_ = owner->add(object_path, wire::named(wire::table, "go", ""));
		request = std::make_unique<retry>(&client.ctx);
		ASSERT_EQ(request->invoke(), 0);
		call_ = owner->receive();
		ASSERT_EQ(call_.type(), wire::invoke);
		client.stop_watching();
	}
	void TearDown() override
	{
		request.reset();
		owner.reset();
		ubus_retry::TearDown();
	}
	void answer(wire::message type, const std::string &attribute)
	{
		owner->send(wire::frame(type, call_.seq(), call_.peer(),
			wire::number(wire::attr_objid, object_) + attribute));
		owner->drain();
	}
	void answer_data(const char *json)
	{
		answer(wire::data, wire::attribute(wire::attr_data, wire::named(wire::unspec, "json", json)));
	}
	void answer_twice_and_fail()
	{
		answer_data("[1]");
		answer_data("[2]");
		answer(wire::status, wire::number(wire::attr_status, UBUS_STATUS_UNKNOWN_ERROR));
	}
	// Each data are noted; in the first, `call` runs.
	void take_data(const std::function<void()> &call)
	{
		request->on_data = [this, call](blob_attr *message) {
			data.push_back(contents_of(message));
			if (data.size() == 1)
				call();
		};
		client.watch_again();
		EXPECT_TRUE(run_until([&] { return !data.empty(); }));
	}
	void read_all()
	{
		uint32_t id;
		EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), 0);
	}
	static std::string message(const char *json) { return contents_of(json_message{json}.head()); }
	size_t further_calls()
	{
		read_all();
		run_passes(3);
		return owner->drain().size();
	}
};

TEST_F(ubus_retry_data, all_data_are_delivered)
{
	answer_twice_and_fail();
	take_data([] {});
	EXPECT_EQ(further_calls(), 1u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]"), message("[2]")}));
	EXPECT_EQ(request->state(), "in flight");
}

TEST_F(ubus_retry_data, all_data_are_delivered_when_a_synchronous_call_reads_them)
{
	answer_twice_and_fail();
	take_data([&] { read_all(); });
	EXPECT_EQ(further_calls(), 1u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]"), message("[2]")}));
}

TEST_F(ubus_retry_data, abort_drops_the_rest)
{
	answer_twice_and_fail();
	take_data([&] { request->abort(); });
	EXPECT_EQ(further_calls(), 0u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]")}));
}

TEST_F(ubus_retry_data, abort_drops_the_rest_that_a_synchronous_call_has_read)
{
	answer_twice_and_fail();
	take_data([&] {
		read_all();
		request->abort();
	});
	EXPECT_EQ(further_calls(), 0u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]")}));
	EXPECT_EQ(request->state(), "aborted in flight");
}

TEST_F(ubus_retry_data, invoke_drops_the_rest_that_a_synchronous_call_has_read)
{
	answer_twice_and_fail();
	take_data([&] {
		read_all();
		EXPECT_EQ(request->invoke(), -EBUSY);
	});
	EXPECT_EQ(further_calls(), 1u);
	EXPECT_EQ(data, (std::vector<std::string>{message("[1]")}));
	EXPECT_EQ(request->state(), "in flight");
}

TEST_F(ubus_retry_data, connection_that_breaks_inside_data_cb_is_an_error_after_it)
{
	answer_data("[1]");
	interruption killer{client.ctx, [&] { bus->kill(); }};
	take_data([&] {
		stop_bus();
		uint32_t id;
		EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), UBUS_STATUS_CONNECTION_FAILED);
		EXPECT_EQ(client.losses, 1);
		EXPECT_EQ(request->state(), "in flight");
	});
	EXPECT_EQ(request->state(), "waiting");
	EXPECT_EQ(take_log(), missing);
}

TEST_F(ubus_retry_data, abort_inside_data_cb_holds_when_the_connection_has_broken_in_it)
{
	answer_data("[1]");
	interruption killer{client.ctx, [&] { bus->kill(); }};
	take_data([&] {
		stop_bus();
		uint32_t id;
		EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), UBUS_STATUS_CONNECTION_FAILED);
		request->abort();
	});
	EXPECT_EQ(request->state(), "aborted in flight");
}

// ---------------------------------------------------------------------------------------------------------
// A context that is taken away and put back, or replaced, while it lives.

TEST_F(ubus_retry, context_taken_away_and_put_back_has_the_request_linked_once)
{
	auto server = serve_and_hold();
	ubus_context *place = client.ctx;
	retry request{&place};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	place = nullptr;
	let_pass(&request.reply_timer);
	EXPECT_EQ(request.state(), "waiting");
	place = client.ctx;
	let_pass(&request.retry_timer);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.ctx->requests.next, &request.req.list);
	EXPECT_EQ(client.ctx->requests.prev, &request.req.list);
	EXPECT_EQ(request.req.list.next, &client.ctx->requests);
	request.abort();
	EXPECT_EQ(client.linked_requests(), 0);
}

TEST_F(ubus_retry, request_left_linked_by_an_attempt_without_a_context_may_be_aborted_and_released)
{
	for (bool by_timer : {true, false}) {
		SCOPED_TRACE(by_timer);
		auto server = serve_and_hold();
		ubus_context *place = client.ctx;
		auto request = std::make_unique<retry>(&place);
		EXPECT_EQ(request->invoke(), 0);
		ASSERT_TRUE(run_until_called(*server, 1));
		place = nullptr;
		if (by_timer)
			let_pass(&request->reply_timer);
		else
			EXPECT_EQ(request->invoke(), -EBUSY);
		place = client.ctx;
		request->abort();
		EXPECT_EQ(client.linked_requests(), 0);
		request.reset();
		EXPECT_EQ(server->release(0), 1);
		uint32_t id = 0;
		EXPECT_EQ(ubus_lookup_id(client.ctx, object_path, &id), 0);
	}
}

TEST_F(ubus_retry, context_replaced_inside_prepare_cb_is_used_by_an_attempt_on_the_next_pass)
{
	auto server = serve_and_hold();
	bus_client other;
	ASSERT_TRUE(other.connect(bus->path()));
	ubus_context *place = client.ctx;
	retry request{&place};
	prepare = [&](blob_buf *) {
		place = other.ctx;
		return 0;
	};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(client.linked_requests(), 0);
	EXPECT_TRUE(request.retry_timer.pending);
	EXPECT_EQ(evloop_timeout_remaining(&request.retry_timer), 0);
	run_pass();
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 0);
	EXPECT_EQ(other.linked_requests(), 1);
	request.abort();
}

TEST_F(ubus_retry, context_freed_inside_prepare_cb_is_not_used_any_more)
{
	auto server = serve();
	retry request{&client.ctx};
	prepare = [&](blob_buf *) {
		client.free();
		return 0;
	};
	EXPECT_EQ(request.invoke(), -EBUSY);
	run_pass();
	EXPECT_EQ(request.state(), "waiting");
	request.abort();
}

TEST_F(ubus_retry, context_replaced_inside_the_look_up_is_used_by_an_attempt_on_the_next_pass)
{
	auto server = serve_and_hold();
	bus_client other;
	ASSERT_TRUE(other.connect(bus->path()));
	ubus_context *place = client.ctx;
	retry request{&place};
	interruption replacing{client.ctx, [&] { place = other.ctx; }};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(preparations, 0);
	run_pass();
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(other.linked_requests(), 1);
	request.abort();
}

namespace
{

int ignore_notification(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
	return 0;
}

// A subscription that waits for its next attempt.
struct waiting_subscription : ubus_subscription {
	explicit waiting_subscription(ubus_context *context) : ubus_subscription{}
	{
		ctx = context;
		strcpy(path, object_path);
		EXPECT_EQ(subscribe(), UBUS_STATUS_NOT_FOUND);
		EXPECT_TRUE(retry.pending);
	}
	waiting_subscription(const waiting_subscription &) = delete;
	waiting_subscription &operator=(const waiting_subscription &) = delete;
	~waiting_subscription() { mox_ubus_unsubscribe(this); }
	int subscribe() { return mox_ubus_subscribe(this, ignore_notification); }
};

} // namespace

TEST_F(ubus_retry, subscribing_anew_without_a_context_cancels_the_attempt_that_was_due)
{
	waiting_subscription subscription{client.ctx};
	subscription.ctx = nullptr;
	EXPECT_EQ(subscription.subscribe(), -EAGAIN);
	EXPECT_FALSE(subscription.retry.pending);
	subscription.ctx = client.ctx;
}

TEST_F(ubus_retry, subscribing_anew_that_cannot_register_cancels_the_attempt_that_was_due)
{
	waiting_subscription subscription{client.ctx};
	bus->kill();
	EXPECT_EQ(subscription.subscribe(), -EAGAIN);
	EXPECT_FALSE(subscription.retry.pending);
}

TEST_F(ubus_retry, subscribing_anew_that_succeeds_cancels_the_attempt_that_was_due)
{
	waiting_subscription subscription{client.ctx};
	auto server = serve();
	EXPECT_EQ(subscription.subscribe(), 0);
	EXPECT_FALSE(subscription.retry.pending);
}

TEST_F(ubus_retry, subscription_whose_context_is_taken_away_inside_registering_fails)
{
	auto server = serve();
	ubus_subscription subscription{};
	subscription.ctx = client.ctx;
	strcpy(subscription.path, object_path);
	auto cb = [](ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
		return 0;
	};
	EXPECT_EQ(mox_ubus_subscribe(&subscription, cb), 0);
	client.on_lost = [&] { subscription.ctx = nullptr; };
	interruption killer{client.ctx, [&] { bus->kill(); }};
	stop_bus();
	EXPECT_EQ(mox_ubus_subscribe(&subscription, cb), -EAGAIN);
	EXPECT_EQ(client.losses, 1);
	EXPECT_EQ(subscription.subscriber.obj.id, 0u);
	mox_ubus_unsubscribe(&subscription);
}

// ---------------------------------------------------------------------------------------------------------
// Abort.

TEST_F(ubus_retry, abort_of_an_idle_request_does_nothing)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.state(), "at rest");
	auto server = serve();
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, aborted_request_makes_no_further_attempt)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	EXPECT_EQ(request.abort(), 0);
	EXPECT_FALSE(client.request_is_linked());
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(request.data_count, 0);
}

TEST_F(ubus_retry, abort_in_flight_leaves_pending_set)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_TRUE(request.pending);
	EXPECT_EQ(request.state(), "aborted in flight");
}

TEST_F(ubus_retry, abort_again_after_one_in_flight_is_harmless)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	for (int count = 0; count < 3; ++count) {
		EXPECT_EQ(request.abort(), 0);
		EXPECT_EQ(request.state(), "aborted in flight");
	}
}

TEST_F(ubus_retry, invoke_after_an_abort_in_flight_makes_an_attempt_like_any_other)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 1);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, init_after_an_abort_in_flight_makes_a_new_request)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.abort(), 0);
	request.init(&client.ctx, "other", object_path);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 2));
	EXPECT_EQ(server->calls()[1].method, "other");
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, request_aborted_in_flight_may_be_released)
{
	auto server = serve();
	server->answer(0, "[1]");
	server->hold();
	auto request = std::make_unique<retry>(&client.ctx);
	EXPECT_EQ(request->invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	EXPECT_EQ(request->abort(), 0);
	request.reset();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, abort_while_waiting_makes_no_further_attempt)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(evloop_get_next_timeout(), -1);

	auto server = serve();
	run_passes(5);
	fence(*server);
	EXPECT_EQ(server->calls().size(), 0u);
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
}

TEST_F(ubus_retry, abort_of_a_finished_request_does_nothing)
{
	auto server = serve();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 2u);
}

TEST_F(ubus_retry, abort_leaves_other_requests_in_flight)
{
	auto server = serve_and_hold();
	retry first{&client.ctx}, second{&client.ctx}, third{&client.ctx};
	for (retry *request : {&first, &second, &third})
		EXPECT_EQ(request->invoke(), 0);
	EXPECT_EQ(second.abort(), 0);
	EXPECT_EQ(client.linked_requests(), 2);
	ASSERT_TRUE(run_until_called(*server, 3));
	answer_all_and_finish(*server, first, 3);
	EXPECT_TRUE(run_until_at_rest(third));
	EXPECT_EQ(second.state(), "aborted in flight");
}

// ---------------------------------------------------------------------------------------------------------
// Where the context is kept.

TEST_F(ubus_retry, invoke_without_a_place_for_the_context_is_refused_and_nothing_is_due)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	request.ctx = nullptr;
	EXPECT_EQ(request.invoke(), -EINVAL);
	EXPECT_EQ(take_log(), "ubus_retry_req: owner.go: invalid ctx ptr\n");
	EXPECT_EQ(request.state(), "at rest");
}

TEST_F(ubus_retry, record_of_zero_bytes_is_refused)
{
	ubus_retry_request request{};
	EXPECT_EQ(ubus_retry_request_invoke(&request), -EINVAL);
	EXPECT_EQ(take_log(), "ubus_retry_req: .: invalid ctx ptr\n");
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_F(ubus_retry, missing_context_is_tried_again_every_two_seconds_until_there_is_one)
{
	ubus_context *place = nullptr;
	retry request{&place};
	for (int count = 0; count < 4; ++count) {
		int64_t before = time_now();
		if (count == 0) {
			EXPECT_EQ(request.invoke(), -EBUSY);
		} else {
			let_pass(&request.retry_timer);
		}
		expect_due_in(request.retry_timer, 2000, before, time_now());
		EXPECT_EQ(request.state(), "waiting");
	}
	EXPECT_EQ(take_log(), "");

	auto server = serve();
	place = client.ctx;
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, context_is_read_anew_for_every_attempt)
{
	bus_daemon other_bus;
	object_server other_server{other_bus.path()};
	other_server.add(object_path);
	bus_client other_client;
	ASSERT_TRUE(other_client.connect(other_bus.path()));

	ubus_context *place = client.ctx;
	retry request{&place};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	place = other_client.ctx;
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(other_server.calls().size(), 1u);
	place = client.ctx;
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
}

TEST_F(ubus_retry, context_freed_while_in_flight_is_not_touched_by_invoke)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	client.free();
	int64_t before = time_now();
	EXPECT_EQ(request.invoke(), -EBUSY);
	expect_due_in(request.retry_timer, 2000, before, time_now());
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_FALSE(request.pending);
}

TEST_F(ubus_retry, context_freed_while_in_flight_is_not_touched_by_abort)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	client.free();
	for (int count = 0; count < 2; ++count) {
		EXPECT_EQ(request.abort(), 0);
		EXPECT_EQ(request.state(), "aborted in flight");
	}
}

TEST_F(ubus_retry, request_in_flight_is_sent_again_on_the_context_that_replaced_a_freed_one)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.free();
	ASSERT_TRUE(client.connect(bus->path()));
	let_pass(&request.reply_timer);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 1);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, requests_in_flight_on_a_freed_context_may_be_released_in_any_order)
{
	auto server = serve_and_hold();
	std::vector<std::unique_ptr<retry>> requests;
	for (int count = 0; count < 6; ++count) {
		requests.push_back(std::make_unique<retry>(&client.ctx));
		EXPECT_EQ(requests.back()->invoke(), 0);
	}
	client.free();
	requests[1].reset(); // there is no context
	ASSERT_TRUE(client.connect(bus->path()));
	requests[4].reset(); // there is another
	EXPECT_EQ(requests[0]->invoke(), 0);
	requests[3].reset(); // and it has requests
	let_pass(&requests[2]->reply_timer);
	requests[0].reset();
	EXPECT_EQ(client.linked_requests(), 1);
	EXPECT_EQ(requests[5]->abort(), 0);
	ASSERT_TRUE(run_until_called(*server, 8));
	answer_all_and_finish(*server, *requests[2], 8);
}

TEST_F(ubus_retry, waiting_request_outlives_its_context)
{
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	client.free();
	let_pass(&request.retry_timer);
	EXPECT_EQ(request.state(), "waiting");
	ASSERT_TRUE(client.connect(bus->path()));
	auto server = serve();
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_retry, request_aborted_before_its_context_was_freed_may_be_used_with_the_next)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(request.abort(), 0);
	client.free();
	EXPECT_EQ(request.abort(), 0);
	ASSERT_TRUE(client.connect(bus->path()));
	EXPECT_EQ(request.abort(), 0);
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

// ---------------------------------------------------------------------------------------------------------
// Inside the look-up of an attempt.

TEST_P(ubus_retry_inside_lookup, abort_ends_the_attempt)
{
	auto server = serve();
	retry request{&client.ctx};
	in_next_lookup([&] { EXPECT_EQ(request.abort(), 0); });
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(preparations, 0);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 0u);
}

TEST_P(ubus_retry_inside_lookup, abort_keeps_a_missing_object_from_being_logged)
{
	retry request{&client.ctx};
	in_next_lookup([&] { EXPECT_EQ(request.abort(), 0); });
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_EQ(request.state(), "at rest");
	EXPECT_EQ(take_log(), "");
}

TEST_P(ubus_retry_inside_lookup, record_may_be_released_after_an_abort)
{
	auto server = serve();
	auto request = std::make_unique<retry>(&client.ctx);
	in_next_lookup([&] { request.reset(); });
	EXPECT_EQ(request->invoke(), -ECANCELED);
	EXPECT_EQ(request, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 0u);
}

TEST_P(ubus_retry_inside_lookup, record_may_be_released_in_an_attempt_of_the_retry_timers)
{
	auto request = std::make_unique<retry>(&client.ctx);
	EXPECT_EQ(request->invoke(), -EBUSY);
	EXPECT_EQ(take_log(), missing);
	in_next_lookup([&] { request.reset(); });
	let_pass(&request->retry_timer);
	EXPECT_EQ(request, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

TEST_P(ubus_retry_inside_lookup, record_may_be_released_in_an_attempt_of_the_reply_timers)
{
	auto server = serve_and_hold();
	auto request = std::make_unique<retry>(&client.ctx);
	EXPECT_EQ(request->invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.stop_watching();
	in_next_lookup([&] { request.reset(); });
	let_pass(&request->reply_timer);
	EXPECT_EQ(request, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
	EXPECT_FALSE(client.request_is_linked());
	client.watch_again();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_P(ubus_retry_inside_lookup, record_may_be_released_in_the_attempt_that_an_error_caused)
{
	auto server = serve_and_hold();
	auto request = std::make_unique<retry>(&client.ctx);
	EXPECT_EQ(request->invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.stop_watching();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	fence(*server);
	in_next_lookup([&] { request.reset(); }); // behind the error in the socket
	client.watch_again();
	EXPECT_TRUE(run_until([&] { return !request; }));
	serve_all(*server);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_P(ubus_retry_inside_lookup, invoke_makes_the_attempt_and_the_outer_one_sends_nothing)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	in_next_lookup([&] { EXPECT_EQ(request.invoke(), 0); });
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_EQ(request.state(), "in flight");
	EXPECT_EQ(client.linked_requests(), 1);
	EXPECT_EQ(preparations, 1);
	serve_all(*server);
	ASSERT_TRUE(run_until_called(*server, 1));
	answer_all_and_finish(*server, request);
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_P(ubus_retry_inside_lookup, invoke_that_fails_holds)
{
	retry request{&client.ctx};
	in_next_lookup([&] { EXPECT_EQ(request.invoke(), -EBUSY); });
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(take_log(), missing);
}

TEST_P(ubus_retry_inside_lookup, record_may_be_initialised_for_another_call)
{
	auto server = serve();
	retry request{&client.ctx};
	in_next_lookup([&] {
		request.abort();
		request.init(&client.ctx, "other", object_path);
		EXPECT_EQ(request.invoke(), 0);
	});
	EXPECT_EQ(request.invoke(), -ECANCELED);
	EXPECT_TRUE(run_until_at_rest(request));
	ASSERT_EQ(server->calls().size(), 1u);
	EXPECT_EQ(server->calls()[0].method, "other");
}

TEST_P(ubus_retry_inside_lookup, another_request_is_sent_at_once)
{
	auto server = serve();
	retry request{&client.ctx}, other{&client.ctx, "other"};
	in_next_lookup([&] { EXPECT_EQ(other.invoke(), 0); });
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_TRUE(run_until_at_rest(other));
	ASSERT_EQ(server->calls().size(), 2u);
	EXPECT_EQ(server->calls()[0].method, "other");
}

TEST_P(ubus_retry_inside_lookup, another_request_may_be_released)
{
	auto server = serve_and_hold();
	auto other = std::make_unique<retry>(&client.ctx, "other");
	retry request{&client.ctx};
	EXPECT_EQ(other->invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	in_next_lookup([&] { other.reset(); });
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_EQ(client.linked_requests(), 1);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, error_that_comes_inside_the_lookup_of_another_is_sent_again_on_the_next_pass)
{
	auto server = serve_and_hold();
	retry request{&client.ctx}, other{&client.ctx, "other"};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.stop_watching();
	server->release(UBUS_STATUS_UNKNOWN_ERROR);
	fence(*server);

	int64_t before = time_now();
	EXPECT_EQ(other.invoke(), 0);
	EXPECT_EQ(request.state(), "waiting");
	expect_due_in(request.retry_timer, 0, before, time_now());
	EXPECT_EQ(preparations, 2);

	evloop_handle_timeouts();
	EXPECT_EQ(request.state(), "in flight");
	client.watch_again();
	ASSERT_TRUE(run_until_called(*server, 3));
	answer_all_and_finish(*server, request, 2);
	EXPECT_TRUE(run_until_at_rest(other));
}

TEST_F(ubus_retry, data_that_comes_inside_the_lookup_of_another_may_invoke_its_request)
{
	auto server = serve();
	server->answer(0, "[1]");
	server->hold();
	retry request{&client.ctx}, other{&client.ctx, "other"};
	request.on_data = [&](blob_attr *) {
		if (request.data_count > 1)
			return;
		EXPECT_EQ(request.invoke(), -EBUSY);
	};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.stop_watching();
	server->release(0);
	fence(*server);
	EXPECT_EQ(other.invoke(), 0);
	EXPECT_EQ(request.data_count, 1);
	EXPECT_EQ(request.state(), "waiting");
	client.watch_again();
	ASSERT_TRUE(run_until_called(*server, 3));
	answer_all_and_finish(*server, request, 2);
	EXPECT_TRUE(run_until_at_rest(other));
}

// ---------------------------------------------------------------------------------------------------------
// Many at once.

namespace
{

constexpr size_t crowd_size = 1000;

using crowd_of_requests = std::vector<std::unique_ptr<retry>>;

crowd_of_requests make_crowd(ubus_context **place)
{
	crowd_of_requests crowd;
	for (size_t i = 0; i < crowd_size; ++i)
		crowd.push_back(std::make_unique<retry>(place, ("m" + std::to_string(i)).c_str()));
	return crowd;
}

size_t count_in_state(const crowd_of_requests &crowd, const std::string &state)
{
	return static_cast<size_t>(std::count_if(
		crowd.begin(), crowd.end(), [&](const auto &request) { return request->state() == state; }));
}

// However slow the machine, no silence is long enough for another call.
void postpone_silence(const crowd_of_requests &crowd)
{
	constexpr int64_t hour_us = 3'600'000'000;
	for (const auto &request : crowd) {
		evloop_timeout *timer = &request->reply_timer;
		if (!timer->pending || timer->expires > time_now() + hour_us / 2)
			continue;
		evloop_timeout_cancel(timer);
		timer->expires += hour_us;
		evloop_timeout_add(timer);
	}
}

// The server, which tells of every call, waits while it is not listened to.
bool run_until_at_rest(const crowd_of_requests &crowd, object_server &server)
{
	return run_until([&] {
		postpone_silence(crowd);
		return server.calls(), count_in_state(crowd, "at rest") == crowd.size();
	});
}

bool run_until_called(const crowd_of_requests &crowd, object_server &server, size_t count)
{
	return run_until([&] {
		postpone_silence(crowd);
		return server.calls().size() >= count;
	});
}

// Whether the calls from `first` on are one of each request.
void expect_one_call_each(const std::vector<object_server::call> &calls, size_t first)
{
	std::set<std::string> methods;
	for (size_t i = first; i < calls.size(); ++i)
		methods.insert(calls[i].method);
	EXPECT_EQ(calls.size() - first, crowd_size);
	EXPECT_EQ(methods.size(), crowd_size);
}

} // namespace

TEST_F(ubus_retry, thousand_requests_in_flight_at_once_are_all_answered)
{
	auto server = serve_and_hold();
	auto crowd = make_crowd(&client.ctx);
	for (auto &request : crowd)
		ASSERT_EQ(request->invoke(), 0);
	EXPECT_EQ(client.linked_requests(), static_cast<int>(crowd_size));
	ASSERT_TRUE(run_until_called(crowd, *server, crowd_size));
	expect_one_call_each(server->calls(), 0);
	EXPECT_EQ(server->release(0), static_cast<int64_t>(crowd_size));
	EXPECT_TRUE(run_until_at_rest(crowd, *server));
	EXPECT_EQ(server->calls().size(), crowd_size);
}

TEST_F(ubus_retry, thousand_errors_at_once_are_sent_again_in_a_bounded_stack)
{
	auto server = serve_and_hold();
	auto crowd = make_crowd(&client.ctx);
	for (auto &request : crowd)
		ASSERT_EQ(request->invoke(), 0);
	ASSERT_TRUE(run_until_called(crowd, *server, crowd_size));

	uintptr_t deepest = UINTPTR_MAX;
	prepare = [&](blob_buf *) {
		deepest = std::min(deepest, reinterpret_cast<uintptr_t>(__builtin_frame_address(0)));
		return 0;
	};
	client.stop_watching();
	EXPECT_EQ(server->release(UBUS_STATUS_UNKNOWN_ERROR), static_cast<int64_t>(crowd_size));
	fence(*server);
	client.watch_again();
	ASSERT_TRUE(run_until_called(crowd, *server, 2 * crowd_size));
	expect_one_call_each(server->calls(), crowd_size);
	EXPECT_EQ(count_in_state(crowd, "in flight"), crowd_size);
	// A thousand nested attempts would take a megabyte; two take a few kilobytes.
	EXPECT_LT(reinterpret_cast<uintptr_t>(__builtin_frame_address(0)) - deepest, 64u * 1024);

	EXPECT_EQ(server->release(0), static_cast<int64_t>(crowd_size));
	EXPECT_TRUE(run_until_at_rest(crowd, *server));
}

// ---------------------------------------------------------------------------------------------------------
// The bus goes away, and comes back.

TEST_F(ubus_retry, lost_connection_is_an_error_and_the_attempt_it_causes_fails)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	int64_t before = time_now();
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	expect_due_in(request.retry_timer, 2000, before, time_now());
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(take_log(), missing);
	let_pass(&request.retry_timer);
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(take_log(), missing);
}

TEST_F(ubus_retry, request_in_flight_is_delivered_after_a_reconnect)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	bus->kill();
	ASSERT_TRUE(run_until_lost());
	EXPECT_EQ(take_log(), missing);
	restart_bus(*server);
	server->answer(0);
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 2u);
}

TEST_F(ubus_retry, request_in_flight_when_the_daemon_reconnects_unasked_is_sent_again_after_its_silence)
{
	auto server = serve_and_hold();
	retry request{&client.ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	ASSERT_EQ(client.reconnect(bus->path()), 0);
	EXPECT_EQ(client.linked_requests(), 1);
	let_pass(&request.reply_timer);
	EXPECT_EQ(client.linked_requests(), 1);
	ASSERT_TRUE(run_until_called(*server, 2));
	answer_all_and_finish(*server, request, 2);
}

TEST_F(ubus_retry, request_invoked_on_every_new_connection_is_delivered_once_on_each)
{
	auto server = serve();
	retry request{&client.ctx};
	for (size_t round = 1; round <= 3; ++round) {
		EXPECT_EQ(request.invoke(), 0);
		EXPECT_TRUE(run_until_at_rest(request));
		serve_all(*server);
		EXPECT_EQ(server->calls().size(), round);
		bus->kill();
		ASSERT_TRUE(run_until_lost());
		restart_bus(*server);
	}
}

TEST_F(ubus_retry, connection_that_breaks_inside_a_lookup_is_a_missing_object)
{
	auto server = serve_and_hold();
	retry request{&client.ctx}, in_flight{&client.ctx, "other"};
	EXPECT_EQ(in_flight.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	client.stop_watching();
	interruption killer{client.ctx, [&] { bus->kill(); }};
	stop_bus();
	int64_t before = time_now();
	EXPECT_EQ(request.invoke(), -EBUSY);
	expect_due_in(request.retry_timer, 2000, before, time_now());
	EXPECT_EQ(request.state(), "waiting");
	EXPECT_EQ(client.losses, 1);
	EXPECT_EQ(take_log(), missing);

	// The other's failure came inside that look-up: on the next pass it meets the loss itself.
	expect_due_in(in_flight.retry_timer, 0, before, time_now());
	evloop_handle_timeouts();
	EXPECT_EQ(in_flight.state(), "waiting");
	EXPECT_EQ(take_log(), "ubus_retry_req owner.other: can't lookup object\n");
}

TEST_F(ubus_retry, record_may_be_released_when_the_connection_breaks_inside_its_lookup)
{
	auto server = serve();
	auto request = std::make_unique<retry>(&client.ctx);
	interruption killer{client.ctx, [&] { bus->kill(); }};
	stop_bus();
	client.on_lost = [&] { request.reset(); };
	EXPECT_EQ(request->invoke(), -ECANCELED);
	EXPECT_EQ(request, nullptr);
	EXPECT_EQ(evloop_get_next_timeout(), -1);
}

// ---------------------------------------------------------------------------------------------------------
// A daemon that is put together as lib/ubus.h shows.

namespace
{

std::string bus_path;

ubus_context *ctx;
evloop_io bus_io;
stable_connection bus_connection;

void on_bus(evloop_io *, unsigned int)
{
	do
		ubus_handle_event(ctx);
	while (!ctx->sock.eof && !list_empty(&ctx->pending));
}

void on_bus_lost(ubus_context *)
{
	bus_io.cb = nullptr;
	if (bus_io.registered)
		evloop_io_delete(&bus_io);
	stable_connection_lost(&bus_connection);
}

int bus_connect()
{
	const char *path = bus_path.c_str();
	if (!ctx)
		ctx = ubus_connect(path);
	else if (ubus_reconnect(ctx, path))
		ctx->sock.fd = -1;
	if (!ctx || ctx->sock.fd < 0 || ctx->sock.eof)
		return -1;
	ctx->connection_lost = on_bus_lost;
	bus_io.cb = on_bus, bus_io.fd = ctx->sock.fd;
	return evloop_io_add(&bus_io, EVLOOP_READ);
}

std::function<void()> after_connect;

class ubus_reconnect : public ubus_retry
{
protected:
	void SetUp() override
	{
		ubus_retry::SetUp();
		client.free(); // here the daemon's own context takes its place
		bus_path = bus->path();
		after_connect = nullptr;
		bus_connection = {};
		bus_connection.connect = bus_connect;
		bus_connection.on_connected = [] { return after_connect ? after_connect() : void(), 0; };
		init_stable_connection(&bus_connection, 1000);
	}
	void TearDown() override
	{
		leave_bus();
		ubus_retry::TearDown();
	}

	static void leave_bus()
	{
		evloop_timeout_cancel(&bus_connection.timer);
		if (bus_io.registered)
			evloop_io_delete(&bus_io);
		if (ctx)
			ubus_free(std::exchange(ctx, nullptr));
	}
	void lose_bus()
	{
		bus->kill();
		EXPECT_TRUE(run_until([] { return !bus_connection.connected; }));
	}
	void bring_bus_back(object_server &server)
	{
		bus->start();
		server.reconnect();
		let_pass(&bus_connection.timer);
		EXPECT_TRUE(bus_connection.connected);
	}
};

#ifdef __SANITIZE_ADDRESS__
constexpr bool keeps_released_memory = true;
#else
constexpr bool keeps_released_memory = false;
#endif

long resident_kib()
{
	std::string text = read_file("/proc/self/status");
	size_t at = text.find("VmRSS:");
	return at == std::string::npos ? -1 : atol(text.c_str() + at + strlen("VmRSS:"));
}

} // namespace

TEST_F(ubus_reconnect, bus_that_starts_later_is_joined)
{
	bus->kill();
	EXPECT_EQ(start_stable_connection(&bus_connection), -EAGAIN);
	retry request{&ctx};
	EXPECT_EQ(request.invoke(), -EBUSY);
	EXPECT_EQ(request.state(), "waiting");
	put_off(&request.retry_timer);

	bus->start();
	auto server = serve();
	let_pass(&bus_connection.timer);
	ASSERT_TRUE(bus_connection.connected);
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

TEST_F(ubus_reconnect, connection_is_tried_again_until_the_bus_is_back)
{
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	lose_bus();
	for (int count = 0; count < 3; ++count) {
		let_pass(&bus_connection.timer);
		EXPECT_FALSE(bus_connection.connected);
	}
	bus->start();
	auto server = serve();
	let_pass(&bus_connection.timer);
	ASSERT_TRUE(bus_connection.connected);
	retry request{&ctx};
	EXPECT_EQ(request.invoke(), 0);
	EXPECT_TRUE(run_until_at_rest(request));
}

TEST_F(ubus_reconnect, failed_reconnects_leave_waiting_requests_waiting)
{
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	auto server = serve_and_hold();
	retry request{&ctx};
	EXPECT_EQ(request.invoke(), 0);
	ASSERT_TRUE(run_until_called(*server, 1));
	lose_bus();
	EXPECT_EQ(take_log(), missing);
	let_pass(&bus_connection.timer); // in vain
	for (int count = 0; count < 2; ++count) {
		let_pass(&request.retry_timer);
		EXPECT_EQ(request.state(), "waiting");
		EXPECT_EQ(take_log(), missing);
	}
	put_off(&request.retry_timer);
	server->answer(0);
	bring_bus_back(*server);
	let_pass(&request.retry_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 2u);
}

TEST_F(ubus_reconnect, thousand_requests_in_flight_survive_the_death_of_the_bus)
{
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	auto server = serve_and_hold();
	auto crowd = make_crowd(&ctx);
	for (auto &request : crowd)
		ASSERT_EQ(request->invoke(), 0);
	ASSERT_TRUE(run_until_called(crowd, *server, crowd_size));

	lose_bus();
	EXPECT_EQ(count_in_state(crowd, "waiting"), crowd_size);
	std::string log = take_log();
	EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), static_cast<int64_t>(crowd_size));
	for (auto &request : crowd)
		EXPECT_NE(log.find("ubus_retry_req owner." + std::string(request->method) +
				   ": can't lookup object\n"),
			std::string::npos);
	for (auto &request : crowd)
		put_off(&request->retry_timer);

	server->answer(0);
	bring_bus_back(*server);
	EXPECT_EQ(count_in_state(crowd, "waiting"), crowd_size);
	for (auto &request : crowd)
		make_due(&request->retry_timer);
	EXPECT_TRUE(run_until_at_rest(crowd, *server));
	expect_one_call_each(server->calls(), crowd_size);
}

TEST_F(ubus_reconnect, thousand_requests_in_flight_survive_the_end_of_their_context)
{
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	auto server = serve_and_hold();
	auto crowd = make_crowd(&ctx);
	for (auto &request : crowd)
		ASSERT_EQ(request->invoke(), 0);
	ASSERT_TRUE(run_until_called(crowd, *server, crowd_size));

	leave_bus();
	server->answer(0);
	for (size_t i = 0; i < crowd_size; i += 2)
		make_due(&crowd[i]->reply_timer);
	evloop_handle_timeouts();
	EXPECT_EQ(count_in_state(crowd, "waiting"), crowd_size / 2);

	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	for (size_t i = 0; i < crowd_size; ++i)
		make_due(i % 2 == 0 ? &crowd[i]->retry_timer : &crowd[i]->reply_timer);
	evloop_handle_timeouts(); // before any silence is postponed
	EXPECT_TRUE(run_until_at_rest(crowd, *server));
	expect_one_call_each(server->calls(), crowd_size);
}

namespace
{

// A daemon with a subscription, a request that it repeats on every connection, and calls in between.
struct small_daemon {
	retry announcement{&ctx, "announce"};
	ubus_subscription subscription{};
	int connections = 0;
	static inline int subscriptions, notifications;

	small_daemon()
	{
		subscriptions = notifications = 0;
		strcpy(subscription.path, object_path);
		subscription.subscribed_cb = [](ubus_subscription *) { return ++subscriptions; };
		after_connect = [this] { connected(); };
	}
	small_daemon(const small_daemon &) = delete;
	small_daemon &operator=(const small_daemon &) = delete;
	~small_daemon()
	{
		after_connect = nullptr;
		mox_ubus_unsubscribe(&subscription);
	}
	void connected()
	{
		++connections;
		subscription.ctx = ctx;
		mox_ubus_subscribe(&subscription,
			[](ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
				++notifications;
				return 0;
			});
		ubus_retry_request_invoke(&announcement);
	}
	// A call that nobody waits for; false if it could not be sent.
	static bool call(const char *method)
	{
		uint32_t id = 0;
		json_message message{"{}"};
		return ubus_lookup_id(ctx, object_path, &id) == 0 &&
		       ubus_req_async_to(ctx, id, method, message.buf(), 5000) == 0;
	}
};

size_t count_calls(object_server &server, const std::string &method)
{
	const auto &calls = server.calls();
	return static_cast<size_t>(std::count_if(
		calls.begin(), calls.end(), [&](const auto &call) { return call.method == method; }));
}

} // namespace

TEST_F(ubus_reconnect, everything_a_daemon_asked_for_works_again_after_each_restart)
{
	auto server = serve();
	small_daemon daemon;
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	for (int round = 1; round <= 4; ++round) {
		EXPECT_EQ(daemon.connections, round);
		EXPECT_TRUE(run_until_at_rest(daemon.announcement));
		EXPECT_EQ(count_calls(*server, "announce"), static_cast<size_t>(round));
		EXPECT_EQ(small_daemon::subscriptions, round);
		server->notify(object_path, "tick");
		EXPECT_TRUE(run_until([&] { return small_daemon::notifications >= round; }));
		EXPECT_EQ(small_daemon::notifications, round);
		EXPECT_TRUE(small_daemon::call("answered"));
		EXPECT_TRUE(run_until([] { return list_empty(&ctx->requests); }));
		EXPECT_EQ(count_calls(*server, "answered"), static_cast<size_t>(round));

		server->hold();
		EXPECT_TRUE(small_daemon::call("unanswered"));
		EXPECT_TRUE(run_until(
			[&] { return count_calls(*server, "unanswered") == static_cast<size_t>(round); }));
		lose_bus();
		EXPECT_EQ(take_log(), "ubus-ureq-async: error: 7\n");
		server->answer(0);
		bring_bus_back(*server);
	}
	EXPECT_TRUE(run_until_at_rest(daemon.announcement));
}

TEST_F(ubus_reconnect, owner_that_restarts_between_two_restarts_of_the_bus_is_found_again)
{
	auto server = serve();
	small_daemon daemon;
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	EXPECT_TRUE(run_until_at_rest(daemon.announcement));
	server->kill();
	EXPECT_TRUE(run_until([&] { return daemon.subscription.retry.pending != 0; }));
	server = serve();
	let_pass(&daemon.subscription.retry);
	EXPECT_EQ(small_daemon::subscriptions, 2);

	lose_bus();
	bring_bus_back(*server);
	EXPECT_EQ(small_daemon::subscriptions, 3);
	EXPECT_TRUE(run_until_at_rest(daemon.announcement));
	EXPECT_EQ(count_calls(*server, "announce"), 1u);
	server->notify(object_path, "tick");
	EXPECT_TRUE(run_until([] { return small_daemon::notifications > 0; }));
	EXPECT_EQ(small_daemon::notifications, 1);
}

TEST_F(ubus_reconnect, thousands_of_calls_over_many_restarts_take_no_memory_and_no_descriptors)
{
	constexpr int rounds = 8, turns = 40, requests = 10;
	constexpr long growth_kib_max = 4096; // all messages together are seven times as big
	prepare = [](blob_buf *buf) { return put_json(buf, "[\"" + std::string(8000, 'x') + "\"]"); };
	ASSERT_EQ(start_stable_connection(&bus_connection), 0);
	crowd_of_requests crowd;
	for (int count = 0; count < requests; ++count)
		crowd.push_back(std::make_unique<retry>(&ctx));
	size_t crowd_count = crowd.size();

	long settled_kib = 0;
	size_t settled_descriptors = 0;
	for (int round = 0; round < rounds; ++round) {
		auto server = serve();
		for (int turn = 0; turn < turns; ++turn) {
			bool errors_first = turn % 4 == 0;
			if (errors_first)
				server->hold();
			size_t calls_before = server->calls().size();
			for (auto &request : crowd)
				ASSERT_EQ(request->invoke(), 0);
			ASSERT_TRUE(small_daemon::call("async"));
			if (errors_first) {
				ASSERT_TRUE(run_until_called(crowd, *server, calls_before + crowd_count + 1));
				server->release(UBUS_STATUS_UNKNOWN_ERROR);
				server->answer(0);
				server->release(0);
				ASSERT_TRUE(logs("ubus-ureq-async: error: 9\n"));
			}
			ASSERT_TRUE(run_until_at_rest(crowd, *server));
			ASSERT_TRUE(run_until([] { return list_empty(&ctx->requests); }));
		}
		server->hold();
		for (auto &request : crowd)
			ASSERT_EQ(request->invoke(), 0);
		lose_bus();
		EXPECT_EQ(count_in_state(crowd, "waiting"), crowd_count);
		take_log();
		for (auto &request : crowd)
			put_off(&request->retry_timer);
		bring_bus_back(*server);
		server->answer(0);
		for (auto &request : crowd)
			make_due(&request->retry_timer);
		ASSERT_TRUE(run_until_at_rest(crowd, *server));
		server.reset();
		ASSERT_TRUE(wait_until_gone(object_path));
		if (round == 2) {
			settled_kib = resident_kib();
			settled_descriptors = open_descriptors().size();
		}
	}
	EXPECT_EQ(open_descriptors().size(), settled_descriptors);
	if (!keeps_released_memory) {
		EXPECT_LT(resident_kib() - settled_kib, growth_kib_max);
	}
}
