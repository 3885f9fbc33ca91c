// libubus: messages that are cut, changed or made of noise.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client.h"

using testing::ElementsAre;

// ---- Broken messages ----

class bus_client_hostile : public bus_client
{
protected:
	// A context with everything that a message can reach.
	struct target {
		ubus_object_type type = make_demo_type();
		object demo{"demo", &type};
		subscriber sub;
		listener ev;
		call plain{"plain"}, raw_too{"raw"};
		notification told{};
	};

	void prepare(target *all)
	{
		connect();
		add(&all->demo, demo_id);
		say(added_frames(2, subscriber_id));
		ASSERT_EQ(ubus_register_subscriber(ctx_, &all->sub), 0);
		say(added_frames(3, listener_id) + status_frame(4, 1, 0));
		ASSERT_EQ(ubus_register_event_handler(ctx_, &all->ev, "*"), 0);
		all->plain.start(ctx_);   // 5
		all->raw_too.start(ctx_); // 6
		all->raw_too.raw_data_cb = [](ubus_request *, int, blob_attr *msg) { note(raw(msg)); };
		all->told.start(ctx_, &all->demo); // 7
	}
	static std::vector<std::string> valid_frames()
	{
		return {
			invoke_frame(1, demo_id, "echo", sample_message()),
			invoke_frame(2, subscriber_id, "tick", json_data),
			invoke_frame(3, listener_id, "an.event", json_data),
			active_frame(demo_id, 1),
			gone_frame(subscriber_id, demo_id),
			data_frame(5, demo_id, sample_message()),
			data_frame(6, demo_id, json_data),
			data_frame(7, demo_id, json_data),
			wire::frame(wire::status, 7, demo_id,
				wire::number(wire::attr_objid, demo_id) +
					wire::attribute(wire::attr_subscribers,
						wire::number(0, 2000) + wire::number(0, 2001)) +
					wire::number(wire::attr_status, 0)),
			status_frame(5, demo_id, 0),
			wire::frame(wire::monitor, 5, demo_id, json_data),
		};
	}
	// Serves until the end of the stream has been met, which the peer has already sent.
	void serve_to_the_end()
	{
		for (int turn = 0; turn < 100'000; ++turn) {
			ubus_handle_event(ctx_);
			if (ctx_->sock.eof)
				return;
		}
		ADD_FAILURE() << "the end of the stream was not met";
	}
	// Feeds these bytes and the end of the stream to the client: no request may be left.
	void throw_at_client(const std::string &bytes)
	{
		target all;
		prepare(&all);
		if (HasFatalFailure())
			return;
		all.demo.on_call = [this](object *, ubus_request_data *req, blob_attr *msg) {
			visit(msg, blob_raw_len(msg), false);
			ubus_send_reply(ctx_, req, msg);
			return 0;
		};
		throw_bytes(bytes);
		serve_to_the_end();
		EXPECT_TRUE(list_empty(&ctx_->requests));
		EXPECT_EQ(events.back(), "lost");
		events.clear();
		disconnect();
		peer_.reset();
	}
	// Writes all bytes without waiting for the client, whose answers go into a socket that is still open.
	void throw_bytes(const std::string &bytes)
	{
		int size = 1 << 20;
		setsockopt(peer_.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
		set_nonblocking(peer_.get());
		size_t done = 0;
		while (done < bytes.size()) {
			ssize_t count = write(peer_.get(), bytes.data() + done, bytes.size() - done);
			ASSERT_GT(count, 0) << strerror(errno);
			done += static_cast<size_t>(count);
		}
		shutdown(peer_.get(), SHUT_WR);
	}
};

TEST_F(bus_client_hostile, frames_cut_at_any_byte_end_with_the_connection)
{
	for (const std::string &frame : valid_frames()) {
		for (size_t length = 0; length < frame.size(); ++length) {
			throw_at_client(frame.substr(0, length));
			ASSERT_FALSE(HasFailure()) << wire::to_hex(frame) << "cut at " << length;
		}
	}
}

TEST_F(bus_client_hostile, synchronous_call_ends_when_its_answer_is_cut_at_any_byte)
{
	std::string answer = found_frame(1, demo_id, "x") + status_frame(1, 0, 0);
	for (size_t length = 0; length < answer.size(); ++length) {
		connect();
		throw_bytes(answer.substr(0, length));
		uint32_t id = 0;
		EXPECT_EQ(ubus_lookup_id(ctx_, "x", &id), 10) << length;
		EXPECT_THAT(take_events(), ElementsAre("lost"));
	}
}

TEST_F(bus_client_hostile, wrong_versions_and_lengths_stop_the_reading_but_not_the_program)
{
	for (const std::string &head : {hex("01010005 fa7a1947 0000000c"), hex("ff010005 fa7a1947 0000000c"),
		     hex("00010005 fa7a1947 00000000"), hex("00010005 fa7a1947 00000003"),
		     hex("00010005 fa7a1947 00100001"), hex("00010005 fa7a1947 00ffffff"),
		     hex("00010005 fa7a1947 ffffffff")}) {
		connect();
		call request;
		for (uint16_t seq = 0; seq < 5; ++seq)
			request.invoke(ctx_);
		ubus_complete_request_async(ctx_, &request);
		// Out of step, the status is read as a header; whole messages after it are not.
		serve(head + hex("01000008 00000000 00000000"));
		serve();
		EXPECT_FALSE(request.status_msg) << wire::to_hex(head);
		shutdown(peer_.get(), SHUT_WR);
		serve_to_the_end();
		EXPECT_THAT(take_events(), ElementsAre("call: 7", "lost"));
		EXPECT_LE(ctx_->msgbuf_data_len, uint32_t{wire::body_bytes_max});
	}
}

TEST_F(bus_client_hostile, synchronous_call_keeps_its_time_among_broken_headers)
{
	connect();
	std::string broken;
	for (int i = 0; i < 1000; ++i)
		broken += hex("01010005 fa7a1947 00000000");
	say(broken);
	EXPECT_EQ(ubus_invoke(ctx_, demo_id, "m", nullptr, nullptr, nullptr, 100), 7);
	EXPECT_FALSE(ctx_->sock.eof);
	EXPECT_EQ(sync_call(), 0) << "in step again, by chance of the lengths";
}

TEST_F(bus_client_hostile, longest_message_is_received)
{
	connect();
	call request;
	request.start(ctx_);
	std::string value(wire::body_bytes_max - 16, 'x');
	std::string frame = data_frame(1, demo_id, value);
	ASSERT_EQ(frame.size(), size_t{8 + wire::body_bytes_max});
	std::thread daemon([&] { write_all(peer_.get(), frame + status_frame(1, demo_id, 0)); });
	while (!request.status_msg && wait_for(ctx_->sock.fd, POLLIN))
		ubus_handle_event(ctx_);
	daemon.join();
	EXPECT_EQ(take_events(), (strings{"call data " + value, "call: 0"}));
}

TEST_F(bus_client_hostile, length_that_is_no_multiple_of_four_counts_as_it_stands)
{
	connect();
	call request;
	request.start(ctx_);
	serve(hex("00010001 fa7a1947 0000000d 01000008 00000006 ff") + status_frame(1, demo_id, 0));
	EXPECT_THAT(take_events(), ElementsAre("call: 6"));
}

TEST_F(bus_client_hostile, frames_with_any_byte_changed_are_survived)
{
	std::mt19937 random(17);
	for (int round = 0; round < 150; ++round) {
		std::string stream;
		for (int i = 0; i < 25; ++i) {
			std::vector<std::string> frames = valid_frames();
			std::string frame = frames[random() % frames.size()];
			for (unsigned count = random() % 3 + 1; count > 0; --count)
				frame[12 + random() % (frame.size() - 12)] = static_cast<char>(random());
			stream += frame;
		}
		throw_at_client(stream);
		ASSERT_FALSE(HasFailure()) << "round " << round;
	}
}

TEST_F(bus_client_hostile, well_framed_garbage_is_survived)
{
	std::mt19937 random(23);
	const uint32_t peers[] = {0, demo_id, 1, 2000}, ids[] = {demo_id, subscriber_id, listener_id, 0, 5};
	for (int round = 0; round < 100; ++round) {
		std::string stream;
		for (int i = 0; i < 25; ++i) {
			std::string body;
			for (unsigned count = random() % 6; count > 0; --count) {
				auto id = static_cast<uint8_t>(random() % 16);
				switch (random() % 4) {
				case 0:
					body += wire::number(id, ids[random() % 5]);
					break;
				case 1:
					body += wire::text(id, "echo");
					break;
				case 2:
					body += wire::be32(uint32_t{id} << 24 | random() % 24);
					break;
				default:
					body += wire::attribute(id, std::string(random() % 9, '\1'));
				}
			}
			stream += wire::frame(
				static_cast<uint8_t>(random() % 13), random() % 8, peers[random() % 4], body);
		}
		throw_at_client(stream);
		ASSERT_FALSE(HasFailure()) << "round " << round;
	}
}

TEST_F(bus_client_hostile, garbage_is_survived)
{
	std::mt19937 random(29);
	for (int round = 0; round < 100; ++round) {
		std::string stream(random() % 2000, '\0');
		for (char &byte : stream)
			byte = static_cast<char>(random() % 4 ? 0 : random());
		throw_at_client(stream);
		ASSERT_FALSE(HasFailure()) << "round " << round;
	}
}
