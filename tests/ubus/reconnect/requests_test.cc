// Retry requests: how one is prepared, sent and tried again while it cannot be sent.
#include "lib/ubus.h"

#include <array>
#include <type_traits>

#include "tests/support/syslog_messages.h"
#include "tests/ubus/reconnect/retry.h"

using namespace retry_support;

namespace
{

static_assert(UBUS_RETRY_DELAY_MS == 2000);
static_assert(std::is_same_v<decltype(ubus_retry_request::method), char[32]>);
static_assert(std::is_same_v<decltype(ubus_retry_request::object), char[32]>);

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

// ---- Preparing a request ----

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
	messages.clear();
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

// ---- An attempt that goes well ----

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

// ---- The object is missing ----

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
	ASSERT_TRUE(invoke_reaches(request, *server));
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
	ASSERT_TRUE(invoke_reaches(request, *server));
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
	ASSERT_TRUE(invoke_reaches(request, *server));
	ASSERT_TRUE(wait_until_gone(object_path));
	server = serve();
	let_pass(&request.reply_timer);
	EXPECT_TRUE(run_until_at_rest(request));
	EXPECT_EQ(server->calls().size(), 1u);
}

// ---- The message cannot be made, or not be sent ----

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

} // namespace
