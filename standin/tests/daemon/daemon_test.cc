// The bus daemon on the wire: recorded exchanges byte by byte, every refusal, the order of what everybody
// hears, and what clients must not be able to do to it and to each other.
//
// The suites ubusd, ubusd_recorded, ubusd_access and ubusd_wire hold for the stand-in and for the real one. Those that
// begin with standin_ are about the stand-in only: its bounds, its options, and where it is better on purpose.
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>

#include <algorithm>
#include <random>

#include <gmock/gmock.h>

#include "tests/support/bus.h"

using namespace support;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using wire::received;

// ---------------------------------------------------------------------------------------------------------
// What the tests are written with.

// The methods of the object in the recordings: "echo" with a number and a text, and "fail".
static const std::string demo_signature =
	wire::named(wire::table, "echo", wire::named_number("n", 5) + wire::named_number("s", 3)) +
	wire::named(wire::table, "fail", "");

static std::string objid(uint32_t id)
{
	return wire::number(wire::attr_objid, id);
}

static std::string target(uint32_t id)
{
	return wire::number(wire::attr_target, id);
}

static std::string method(const std::string &name)
{
	return wire::text(wire::attr_method, name);
}

static std::string payload(const std::string &children)
{
	return wire::attribute(wire::attr_data, children);
}

static std::string path(const std::string &name)
{
	return wire::text(wire::attr_objpath, name);
}

static std::string signature(const std::string &children)
{
	return wire::attribute(wire::attr_signature, children);
}

static std::string status(uint32_t value)
{
	return wire::number(wire::attr_status, value);
}

static const std::string no_reply = wire::octet(wire::attr_no_reply, 1);
static const std::string as_root = wire::text(wire::attr_user, "root") + wire::text(wire::attr_group, "root");

// Recorded frames with `from` in them replaced by the ids of this run.
static std::string with_ids(std::string bytes, const std::vector<std::pair<uint32_t, uint32_t>> &ids)
{
	for (const auto &[from, to] : ids)
		for (size_t at = 0; at + 4 <= bytes.size(); at += 4)
			if (wire::number_at(bytes, at) == from)
				bytes.replace(at, 4, wire::be32(to));
	return bytes;
}

// Matches frames by all of their bytes.
static received exactly(uint8_t type, uint32_t seq, uint32_t peer, const std::string &attributes = {})
{
	return {wire::frame(type, seq, peer, attributes)};
}

// An answer to the client's latest request, when that is made in the same expression.
MATCHER_P4(answer_to, client, type, peer, attributes, "")
{
	received wanted = exactly(type, client->last_seq(), peer, attributes);
	*result_listener << "wanted is " << wanted;
	return arg == wanted;
}

static auto final_status(const raw_client &client, uint32_t peer, uint32_t value)
{
	return answer_to(&client, wire::status, peer, status(value));
}

static auto data_answer(const raw_client &client, const std::string &attributes)
{
	return answer_to(&client, wire::data, uint32_t{0}, attributes);
}

// The names in `frames` of looked up objects.
static std::vector<std::string> paths_in(const std::vector<received> &frames)
{
	std::vector<std::string> paths;
	for (const received &frame : frames)
		if (frame.type() == wire::data)
			paths.push_back(frame.text(wire::attr_objpath));
	return paths;
}

// A daemon for each test, which has to end well: in a sanitized build nothing may have been found then.
class bus_test : public descriptor_test
{
	std::optional<bus_daemon> daemon_;

protected:
	void SetUp() override
	{
		descriptor_test::SetUp();
		daemon_.emplace();
	}
	void TearDown() override
	{
		if (daemon_->running())
			daemon_->stop();
		daemon_.reset();
		descriptor_test::TearDown();
	}
	bus_daemon &daemon() { return *daemon_; }
	raw_client connect() { return raw_client(daemon_->path()); }
	// The daemon's descriptors; whoever has closed a connection before is gone, as `client` is answered.
	size_t descriptor_count(raw_client *client)
	{
		client->drain();
		return daemon_->descriptor_count();
	}
};

// A client of another user: the kernel keeps the credentials that a connection was made with.
static raw_client connect_as(const std::string &socket_path, uid_t uid, gid_t gid)
{
	EXPECT_EQ(setegid(gid), 0) << strerror(errno);
	EXPECT_EQ(seteuid(uid), 0) << strerror(errno);
	raw_client client(socket_path);
	EXPECT_EQ(seteuid(0), 0);
	EXPECT_EQ(setegid(0), 0);
	return client;
}

class ubusd : public bus_test
{
};
class ubusd_wire : public bus_test
{
};
using standin_ubusd_wire = ubusd_wire;

class standin_ubusd : public bus_test
{
protected:
	// Standard streams, epoll, signals and the listening socket: nobody is connected.
	static constexpr size_t own_descriptors = 6;

	void wait_until_alone()
	{
		ASSERT_TRUE(eventually([&] { return daemon().descriptor_count() == own_descriptors; }));
	}
};

// ---------------------------------------------------------------------------------------------------------
// Recorded exchanges. A owns "demo"; B looks it up, calls it, and subscribes to it.

class ubusd_recorded : public bus_test
{
protected:
	raw_client a, b;
	uint32_t demo = 0, demo_type = 0, listener = 0;

	static constexpr uint32_t recorded_a = 0xfc8b6722, recorded_b = 0x618b9132,
				  recorded_demo = 0xfa7a1947, recorded_type = 0xae8c6041,
				  recorded_subscriber = 0xaa08ac77, recorded_listener = 0xc61fe656;

	std::string replay(std::string_view hex) const
	{
		return with_ids(wire::from_hex(hex),
			{{recorded_a, a.id()}, {recorded_b, b.id()}, {recorded_demo, demo},
				{recorded_type, demo_type}, {recorded_subscriber, listener},
				{recorded_listener, listener}});
	}
	received recorded(std::string_view hex) const { return {replay(hex)}; }

	static constexpr std::string_view signature_hex =
		"06000034 82000024 00046563 686f0000 8500000c 00016e00"
		"00000005 8500000c 00017300 00000003 8200000c 00046661"
		"696c0000";
	static constexpr std::string_view add_demo_hex =
		"00060001 00000000 00000044 02000009 64656d6f 00000000";

	void SetUp() override
	{
		bus_test::SetUp();
		a = connect();
		b = connect();
	}
	void add_demo()
	{
		a.send(wire::from_hex(std::string(add_demo_hex) + std::string(signature_hex)));
		received answer = a.receive();
		demo = answer.number(wire::attr_objid);
		demo_type = answer.number(wire::attr_objtype);
		EXPECT_EQ(answer, recorded("00020001 00000000 00000014 03000008 fa7a1947 05000008 ae8c6041"));
		EXPECT_EQ(a.receive(), recorded("00010001 00000000 0000000c 01000008 00000000"));
	}
	// B's subscriber, and what A hears of it.
	void subscribe()
	{
		listener = b.add();
		b.send(replay("00080009 00000000 00000014 03000008 aa08ac77 08000008 fa7a1947"));
		EXPECT_EQ(b.receive(), recorded("00010009 00000000 0000000c 01000008 00000000"));
		EXPECT_EQ(a.receive(),
			recorded("000a0001 00000000 00000014 03000008 fa7a1947 09000005 01000000"));
	}
	void TearDown() override
	{
		a.close();
		b.close();
		bus_test::TearDown();
	}
};

TEST_F(ubusd_recorded, hello_is_the_first_message_and_names_the_client)
{
	owned_fd fd = connect_to_path(daemon().path());
	received hello = receive_frame(fd.get());
	EXPECT_EQ(hello, exactly(wire::hello, 0, hello.peer()));
	EXPECT_GE(hello.peer(), 1024U);
	EXPECT_NE(hello.peer(), a.id());
	EXPECT_NE(a.id(), b.id());
}

TEST_F(ubusd_recorded, object_is_added)
{
	add_demo();
	EXPECT_GE(demo, 1024U);
	EXPECT_GE(demo_type, 1024U);
}

TEST_F(ubusd_recorded, object_is_looked_up)
{
	add_demo();
	b.send(wire::from_hex("00040003 00000000 00000010 02000009 64656d6f 00000000"));
	EXPECT_EQ(b.receive(),
		recorded("00020003 00000000 00000054 02000009 64656d6f 00000000 03000008 fa7a1947"
			 "05000008 ae8c6041" +
			 std::string(signature_hex)));
	EXPECT_EQ(b.receive(), recorded("00010003 00000000 0000000c 01000008 00000000"));
}

TEST_F(ubusd_recorded, unknown_path_is_not_found)
{
	add_demo();
	b.send(wire::from_hex("00040004 00000000 00000010 02000009 6e6f7065 00000000"));
	EXPECT_EQ(b.receive(), recorded("00010004 00000000 0000000c 01000008 00000004"));
}

TEST_F(ubusd_recorded, call_and_its_replies_are_handed_on)
{
	add_demo();
	std::string sent = "07000018 80000013 00046a73 6f6e0000 7b226122 3a317d00";
	b.send(replay("00050005 fa7a1947 00000030 03000008 fa7a1947 04000009 6563686f 00000000" + sent));
	EXPECT_EQ(a.receive(),
		recorded("00050005 618b9132 00000048 03000008 fa7a1947 04000009 6563686f 00000000"
			 "0c000009 726f6f74 00000000 0d000009 726f6f74 00000000" +
			 sent));
	a.send(replay("00020005 618b9132 00000024 03000008 fa7a1947" + sent));
	EXPECT_EQ(b.receive(), recorded("00020005 fa7a1947 00000024 03000008 fa7a1947" + sent));
	a.send(replay("00010005 618b9132 00000014 01000008 00000000 03000008 fa7a1947"));
	EXPECT_EQ(b.receive(), recorded("00010005 fa7a1947 00000014 01000008 00000000 03000008 fa7a1947"));
}

TEST_F(ubusd_recorded, call_of_an_unknown_object_is_answered_by_the_daemon)
{
	b.send(wire::from_hex("00050007 fa7a1946 00000030 03000008 fa7a1946 04000009 6563686f 00000000"
			      "07000018 80000013 00046a73 6f6e0000 7b226122 3a317d00"));
	EXPECT_EQ(b.receive(), recorded("00010007 fa7a1946 0000000c 01000008 00000004"));
}

TEST_F(ubusd_recorded, notification_without_replies_reaches_the_subscriber)
{
	add_demo();
	subscribe();
	std::string sent = "07000018 80000013 00046a73 6f6e0000 7b226122 3a317d00";
	a.send(replay("000a0002 fa7a1947 00000038 03000008 fa7a1947 04000009 7469636b 00000000" + sent +
		      "0a000005 01000000"));
	EXPECT_EQ(b.receive(),
		recorded("00050002 fc8b6722 00000050 0a000005 01000000 03000008 aa08ac77 04000009"
			 "7469636b 00000000 0c000009 726f6f74 00000000 0d000009 726f6f74 00000000" +
			 sent));
	EXPECT_THAT(a.drain(), IsEmpty());
	EXPECT_THAT(b.drain(), IsEmpty());
}

TEST_F(ubusd_recorded, notification_with_replies_lists_the_subscribers_whose_statuses_follow)
{
	add_demo();
	subscribe();
	a.send(replay("000a0003 fa7a1947 00000018 03000008 fa7a1947 04000009 746f636b 00000000"));
	EXPECT_EQ(a.receive(),
		recorded("00010003 fa7a1947 00000020 03000008 fa7a1947 0b00000c 00000008 aa08ac77"
			 "01000008 00000000"));
	EXPECT_EQ(b.receive(),
		recorded("00050003 fc8b6722 00000030 03000008 aa08ac77 04000009 746f636b 00000000"
			 "0c000009 726f6f74 00000000 0d000009 726f6f74 00000000"));
	b.send(replay("00010003 fc8b6722 00000014 01000008 00000000 03000008 aa08ac77"));
	EXPECT_EQ(a.receive(), recorded("00010003 aa08ac77 00000014 01000008 00000000 03000008 aa08ac77"));
}

TEST_F(ubusd_recorded, removal_of_an_object_with_a_subscriber)
{
	add_demo();
	subscribe();
	a.send(replay("00070004 00000000 0000000c 03000008 fa7a1947"));
	EXPECT_EQ(b.receive(), recorded("00090001 00000000 00000014 03000008 aa08ac77 08000008 fa7a1947"));
	EXPECT_EQ(a.receive(), recorded("00020004 00000000 00000014 03000008 fa7a1947 05000008 ae8c6041"));
	EXPECT_EQ(a.receive(), recorded("000a0002 00000000 00000014 03000008 fa7a1947 09000005 00000000"));
	EXPECT_EQ(a.receive(), recorded("00010004 00000000 0000000c 01000008 00000000"));
}

TEST_F(ubusd_recorded, event_reaches_its_listener)
{
	listener = b.add();
	b.send(replay(
		"00050002 00000001 00000054 03000008 00000001 0400000d 72656769 73746572 00000000"
		"07000038 85000014 00066f62 6a656374 00000000 c61fe656 8300001e 00077061 74746572 6e000000"
		"75627573 2e6f626a 6563742e 2a000000"));
	EXPECT_EQ(b.receive(), recorded("00010002 00000001 0000000c 01000008 00000000"));
	add_demo();
	EXPECT_EQ(b.receive(),
		recorded("00050001 00000000 00000048 03000008 c61fe656 04000014 75627573 2e6f626a"
			 "6563742e 61646400 07000028 85000010 00026964 00000000 fa7a1947 83000011"
			 "00047061 74680000 64656d6f 00000000"));
}

// ---------------------------------------------------------------------------------------------------------
// Adding and removing objects.

TEST_F(ubusd, taken_path_is_refused_without_data)
{
	raw_client a = connect(), b = connect();
	ASSERT_NE(a.add("demo", demo_signature), 0U);
	EXPECT_THAT(b.answers(wire::add_object, 0, path("demo") + signature("")),
		ElementsAre(final_status(b, 0, 2)));
	EXPECT_THAT(a.answers(wire::add_object, 7, path("demo")), ElementsAre(final_status(a, 7, 2)));
}

TEST_F(ubusd, object_without_a_path_has_no_type)
{
	raw_client a = connect();
	std::vector<received> frames = a.answers(wire::add_object, 0);
	ASSERT_THAT(frames, SizeIs(2));
	EXPECT_THAT(frames[0], data_answer(a, objid(frames[0].number(wire::attr_objid))));
	EXPECT_THAT(frames[1], final_status(a, 0, 0));
}

TEST_F(ubusd, second_object_shares_a_type_and_only_the_last_removal_names_it)
{
	raw_client a = connect(), b = connect();
	std::vector<received> first =
		a.answers(wire::add_object, 0, path("first") + signature(demo_signature));
	uint32_t type = first[0].number(wire::attr_objtype);
	std::string typed = wire::number(wire::attr_objtype, type);
	std::vector<received> second = b.answers(wire::add_object, 0, path("second") + typed);
	uint32_t second_id = second[0].number(wire::attr_objid);
	EXPECT_THAT(second[0], data_answer(b, objid(second_id)));
	EXPECT_THAT(a.answers(wire::lookup, 0, path("second"))[0],
		data_answer(a, path("second") + objid(second_id) + typed + signature(demo_signature)));

	uint32_t first_id = first[0].number(wire::attr_objid);
	EXPECT_THAT(a.answers(wire::remove_object, 0, objid(first_id))[0], data_answer(a, objid(first_id)));
	EXPECT_THAT(b.answers(wire::remove_object, 0, objid(second_id))[0],
		data_answer(b, objid(second_id) + typed));
	// The type has gone with its last object.
	uint32_t third_id = b.add();
	ASSERT_NE(third_id, 0U);
	b.answers(wire::add_object, 0, path("fourth") + typed);
	EXPECT_THAT(b.answers(wire::lookup, 0, path("fourth")), ElementsAre(final_status(b, 0, 0)));
}

TEST_F(ubusd, object_with_an_unknown_type_or_a_malformed_signature_has_a_path_and_no_type)
{
	raw_client a = connect();
	const std::string unnamed = wire::named(wire::table, "", "");
	const std::string not_extended = wire::number(2, 1);
	const std::string overlong_name = wire::padded(wire::be32(0x8200000c) + wire::be16(400) + "abcdef");
	int count = 0;
	for (const std::string &attributes : {signature(unnamed), signature(not_extended),
		     signature(overlong_name), signature(wire::named(wire::table, "good", "") + unnamed),
		     wire::number(wire::attr_objtype, 0x12345678)}) {
		std::string name = "object" + std::to_string(count++);
		std::vector<received> frames = a.answers(wire::add_object, 0, path(name) + attributes);
		ASSERT_THAT(frames, SizeIs(2)) << name;
		EXPECT_THAT(frames[0], data_answer(a, objid(frames[0].number(wire::attr_objid)))) << name;
		EXPECT_THAT(a.answers(wire::lookup, 0, path(name)), ElementsAre(final_status(a, 0, 0)))
			<< name;
	}
}

TEST_F(ubusd, signature_of_anything_with_names_is_taken_as_it_is)
{
	raw_client a = connect();
	const std::string not_tables = wire::named_text("echo", "no table");
	std::vector<received> added = a.answers(wire::add_object, 0, path("demo") + signature(not_tables));
	ASSERT_THAT(added, SizeIs(2));
	uint32_t id = added[0].number(wire::attr_objid), type = added[0].number(wire::attr_objtype);
	EXPECT_NE(type, 0U);
	EXPECT_THAT(a.answers(wire::lookup, 0, path("demo")),
		ElementsAre(data_answer(a, path("demo") + objid(id) + wire::number(wire::attr_objtype, type) +
						   signature(not_tables)),
			final_status(a, 0, 0)));
}

TEST_F(ubusd, removal_without_an_id_of_an_unknown_and_of_a_foreign_object_is_refused)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add("demo", demo_signature);
	EXPECT_EQ(b.status_of(wire::remove_object, 0), 2);
	EXPECT_EQ(b.status_of(wire::remove_object, 0, wire::octet(wire::attr_objid, 1)), 2);
	EXPECT_EQ(b.remove(object + 1), 4);
	EXPECT_EQ(b.remove(wire::event_object), 6);
	EXPECT_EQ(b.remove(object), 6);
	EXPECT_EQ(a.remove(object), 0);
	EXPECT_EQ(a.remove(object), 4);
	EXPECT_NE(b.add("demo"), 0U) << "the path is free again";
}

TEST_F(ubusd, statuses_repeat_the_sequence_number_and_the_peer_of_the_request)
{
	raw_client a = connect();
	a.send(wire::frame(wire::lookup, 0xabcd, 0x01020304, path("nope")));
	EXPECT_EQ(a.receive(), exactly(wire::status, 0xabcd, 0x01020304, status(4)));
}

// ---------------------------------------------------------------------------------------------------------
// Look-ups.

TEST_F(ubusd, patterns_are_prefixes_and_results_come_in_order_of_their_bytes)
{
	raw_client a = connect();
	for (const char *name : {"net.b", "net", "net.a", "nex", "\xc3\xa4", "Net", "net.a.b"})
		ASSERT_NE(a.add(name, demo_signature), 0U);
	ASSERT_NE(a.add(), 0U);
	auto found = [&](const std::string &pattern) {
		return paths_in(a.answers(wire::lookup, 0, path(pattern)));
	};
	EXPECT_THAT(found("net.*"), ElementsAre("net.a", "net.a.b", "net.b"));
	EXPECT_THAT(found("ne*"), ElementsAre("net", "net.a", "net.a.b", "net.b", "nex"));
	EXPECT_THAT(found("*"), ElementsAre("Net", "net", "net.a", "net.a.b", "net.b", "nex", "\xc3\xa4"));
	EXPECT_THAT(found("net"), ElementsAre("net"));
	EXPECT_THAT(paths_in(a.answers(wire::lookup, 0)), SizeIs(7));
	EXPECT_EQ(a.status_of(wire::lookup, 0, path("net.*")), 0);
	EXPECT_EQ(a.status_of(wire::lookup, 0, path("zet.*")), 4);
	EXPECT_EQ(a.status_of(wire::lookup, 0, path("n*t")), 4)
		<< "a star stands for something at the end only";
}

TEST_F(ubusd, look_up_of_everything_finds_nothing_and_a_star_alone_fails)
{
	raw_client a = connect();
	EXPECT_THAT(a.answers(wire::lookup, 0), ElementsAre(final_status(a, 0, 0)));
	EXPECT_THAT(a.answers(wire::lookup, 0, path("*")), ElementsAre(final_status(a, 0, 4)));
	EXPECT_THAT(a.answers(wire::lookup, 0, path("")), ElementsAre(final_status(a, 0, 2)));
	// A path that is no string is none.
	EXPECT_THAT(a.answers(wire::lookup, 0, wire::attribute(wire::attr_objpath, "abcd")),
		ElementsAre(final_status(a, 0, 0)));
}

// ---------------------------------------------------------------------------------------------------------
// Calls.

TEST_F(ubusd, call_without_a_method_or_an_object_is_refused)
{
	raw_client a = connect();
	uint32_t object = a.add();
	EXPECT_EQ(a.status_of(wire::invoke, object, objid(object) + payload("")), 2);
	EXPECT_EQ(a.status_of(wire::invoke, object, method("echo") + payload("")), 2);
	EXPECT_EQ(
		a.status_of(wire::invoke, object, objid(object) + wire::attribute(wire::attr_method, "echo")),
		2);
	EXPECT_EQ(a.status_of(wire::invoke, object, wire::text(wire::attr_objid, "abc") + method("x")), 4)
		<< "four bytes are a number";
	EXPECT_EQ(a.status_of(wire::invoke, object, wire::text(wire::attr_objid, "abcd") + method("x")), 2);
	EXPECT_EQ(a.status_of(wire::invoke, 1000, objid(1000) + method("echo")), 4);
	EXPECT_THAT(a.drain(), IsEmpty());
}

TEST_F(ubusd, client_may_call_its_own_object)
{
	raw_client a = connect();
	uint32_t object = a.add();
	uint16_t seq = a.invoke(object, "echo", wire::named_number("n", 7));
	EXPECT_EQ(a.receive(),
		exactly(wire::invoke, seq, a.id(),
			objid(object) + method("echo") + as_root + payload(wire::named_number("n", 7))));
	a.send(wire::frame(wire::status, seq, a.id(), status(0) + objid(object)));
	EXPECT_EQ(a.receive(), exactly(wire::status, seq, object, status(0) + objid(object)));
}

TEST_F(ubusd, caller_cannot_say_who_it_is_and_its_order_of_attributes_does_not_matter)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add("demo", demo_signature);
	uint16_t seq = b.request(wire::invoke, object,
		wire::text(wire::attr_user, "mallory") + payload("") + method("echo") + wire::number(13, 5) +
			wire::text(99, "of a later release") + objid(object));
	EXPECT_EQ(a.receive(),
		exactly(wire::invoke, seq, b.id(), objid(object) + method("echo") + as_root + payload("")));
}

TEST_F(ubusd, call_without_replies_reaches_the_owner_as_any_other)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add();
	uint16_t seq = b.request(wire::invoke, object, objid(object) + method("echo") + no_reply);
	EXPECT_EQ(a.receive(), exactly(wire::invoke, seq, b.id(), objid(object) + method("echo") + as_root));
}

TEST_F(ubusd, reply_is_dropped_unless_it_comes_from_an_object_of_its_sender_and_has_what_it_needs)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add(), foreign = b.add();
	a.send(wire::frame(wire::status, 1, b.id(), status(0)));
	a.send(wire::frame(wire::status, 2, b.id(), status(0) + objid(foreign)));
	a.send(wire::frame(wire::status, 3, b.id(), objid(object)));
	a.send(wire::frame(wire::status, 4, b.id(), payload("") + objid(object)));
	a.send(wire::frame(wire::status, 5, b.id() + 1, status(0) + objid(object)));
	a.send(wire::frame(wire::status, 6, 0, status(0) + objid(object)));
	a.send(wire::frame(wire::data, 7, b.id(), objid(object)));
	a.send(wire::frame(wire::data, 8, b.id(), status(0) + objid(object)));
	a.send(wire::frame(wire::data, 9, b.id(), payload("") + objid(foreign)));
	a.send(wire::frame(wire::data, 10, b.id(), payload("") + objid(wire::event_object)));
	a.send(wire::frame(wire::data, 11, b.id(), payload("") + objid(object) + wire::number(5, 5)));
	EXPECT_THAT(a.drain(), IsEmpty()) << "replies are never answered";
	EXPECT_THAT(b.drain(), ElementsAre(exactly(wire::data, 11, object,
				       payload("") + objid(object) + wire::number(5, 5))));
}

TEST_F(ubusd, caller_hears_nothing_when_the_owner_disconnects)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add();
	uint32_t subscriber = b.add();
	ASSERT_EQ(b.subscribe(subscriber, object), 0);
	b.invoke(object, "echo");
	a.close();
	EXPECT_EQ(b.receive().type(), wire::unsubscribe);
	EXPECT_THAT(b.drain(), IsEmpty());
}

TEST_F(ubusd, ping_comes_back_as_data)
{
	raw_client a = connect();
	std::string body = method("anything") + payload(wire::named_number("n", 1)) + wire::octet(77, 9);
	EXPECT_THAT(a.answers(wire::ping, 0xdeadbeef, body),
		ElementsAre(answer_to(&a, wire::data, 0xdeadbeef, body), final_status(a, 0xdeadbeef, 0)));
}

TEST_F(ubusd, types_without_a_handler_are_invalid_commands)
{
	raw_client a = connect();
	for (int type : {0, 11, 12, 13, 100, 128, 255})
		EXPECT_EQ(a.status_of(static_cast<uint8_t>(type), 5, path("x")), 1) << type;
}

TEST_F(ubusd, sequence_numbers_and_ids_take_all_of_their_bits)
{
	raw_client a = connect(), b = connect();
	uint32_t object = a.add();
	for (uint32_t seq : {0U, 1U, 0x7fffU, 0x8000U, 0xffffU}) {
		b.send(wire::frame(wire::invoke, seq, object, objid(object) + method("echo")));
		EXPECT_EQ(a.receive().seq(), seq);
		a.send(wire::frame(wire::status, seq, b.id(), status(0xfffffffe) + objid(object)));
		EXPECT_EQ(
			b.receive(), exactly(wire::status, seq, object, status(0xfffffffe) + objid(object)));
	}
}

// ---------------------------------------------------------------------------------------------------------
// Subscriptions and notifications.

TEST_F(ubusd, subscription_is_refused_in_the_order_of_the_checks)
{
	raw_client a = connect(), b = connect();
	uint32_t demo = a.add("demo", demo_signature), other = a.add(), mine = b.add();
	for (uint8_t type : {wire::subscribe, wire::unsubscribe}) {
		SCOPED_TRACE(int{type});
		EXPECT_EQ(b.status_of(type, 0, target(demo)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(mine)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(mine) + wire::octet(wire::attr_target, 1)), 4)
			<< "a number that goes on in its padding";
		EXPECT_EQ(b.status_of(type, 0, objid(mine + 1) + target(demo)), 4);
		EXPECT_EQ(b.status_of(type, 0, objid(wire::event_object) + target(demo)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(other) + target(demo)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(other) + target(demo + 1)), 2);
		EXPECT_EQ(b.status_of(type, 0, objid(mine) + target(demo + 1)), 4);
		EXPECT_EQ(b.status_of(type, 0, objid(mine) + target(wire::event_object)), 4);
	}
	EXPECT_EQ(a.subscribe(other, demo), 2) << "to an object of its own";
	EXPECT_EQ(b.unsubscribe(mine, demo), 4) << "without a subscription";
	EXPECT_EQ(b.subscribe(mine, demo), 0);
	EXPECT_EQ(b.unsubscribe(mine, demo), 0);
	EXPECT_EQ(b.unsubscribe(mine, demo), 4);
}

static received active(uint16_t counter, uint32_t object, uint8_t value)
{
	return exactly(wire::notify, counter, 0, objid(object) + wire::octet(wire::attr_active, value));
}

TEST_F(ubusd, owner_hears_of_its_first_and_its_last_subscriber)
{
	raw_client a = connect(), b = connect(), c = connect();
	uint32_t demo = a.add(), of_b = b.add(), of_c = c.add();
	EXPECT_EQ(b.subscribe(of_b, demo), 0);
	EXPECT_THAT(a.drain(), ElementsAre(active(1, demo, 1)));
	EXPECT_EQ(c.subscribe(of_c, demo), 0);
	EXPECT_EQ(c.subscribe(of_c, demo), 0);
	EXPECT_EQ(b.unsubscribe(of_b, demo), 0);
	EXPECT_EQ(c.unsubscribe(of_c, demo), 0);
	EXPECT_THAT(a.drain(), IsEmpty()) << "one of two equal subscriptions is left";
	EXPECT_EQ(c.unsubscribe(of_c, demo), 0);
	EXPECT_THAT(a.drain(), ElementsAre(active(2, demo, 0)));
	EXPECT_EQ(b.subscribe(of_b, demo), 0);
	EXPECT_THAT(a.drain(), ElementsAre(active(3, demo, 1)));
	EXPECT_THAT(b.drain(), IsEmpty());
}

static std::string subscribers(const std::vector<uint32_t> &ids)
{
	std::string list;
	for (uint32_t id : ids)
		list += wire::number(0, id);
	return wire::attribute(wire::attr_subscribers, list);
}

TEST_F(ubusd, notification_goes_to_each_subscription_the_latest_first)
{
	raw_client a = connect(), b = connect(), c = connect();
	uint32_t demo = a.add(), of_b = b.add(), also_of_b = b.add(), of_c = c.add();
	EXPECT_EQ(b.subscribe(of_b, demo), 0);
	EXPECT_EQ(c.subscribe(of_c, demo), 0);
	EXPECT_EQ(b.subscribe(also_of_b, demo), 0);
	EXPECT_EQ(b.subscribe(of_b, demo), 0);
	a.drain();
	uint16_t seq = a.request(wire::notify, demo, objid(demo) + method("tick") + payload(""));
	EXPECT_EQ(a.receive(), exactly(wire::status, seq, demo,
				       objid(demo) + subscribers({of_b, also_of_b, of_c, of_b}) + status(0)));
	auto tick = [&](uint32_t subscriber) {
		return exactly(wire::invoke, seq, a.id(),
			objid(subscriber) + method("tick") + as_root + payload(""));
	};
	EXPECT_THAT(b.drain(), ElementsAre(tick(of_b), tick(also_of_b), tick(of_b)));
	EXPECT_THAT(c.drain(), ElementsAre(tick(of_c)));
	EXPECT_THAT(a.drain(), IsEmpty());
}

TEST_F(ubusd, notification_without_subscribers_has_an_empty_list)
{
	raw_client a = connect();
	uint32_t demo = a.add();
	uint16_t seq = a.request(
		wire::notify, 99, objid(demo) + method("tick") + wire::octet(wire::attr_no_reply, 0));
	EXPECT_EQ(a.receive(), exactly(wire::status, seq, 99, objid(demo) + subscribers({}) + status(0)));
	a.request(wire::notify, demo, objid(demo) + method("tick") + no_reply);
	EXPECT_THAT(a.drain(), IsEmpty());
}

TEST_F(ubusd, notification_is_refused_in_the_order_of_the_checks)
{
	raw_client a = connect(), b = connect();
	uint32_t demo = a.add();
	EXPECT_EQ(a.status_of(wire::notify, demo, objid(demo)), 2);
	EXPECT_EQ(a.status_of(wire::notify, demo, method("tick")), 2);
	EXPECT_EQ(a.status_of(wire::notify, demo, objid(demo + 1) + method("tick")), 4);
	EXPECT_EQ(a.status_of(wire::notify, 1, objid(wire::event_object) + method("tick")), 6);
	EXPECT_EQ(b.status_of(wire::notify, demo, objid(demo) + method("tick")), 6);
}

TEST_F(ubusd, subscriber_without_a_subscription_hears_nothing)
{
	raw_client a = connect(), b = connect();
	uint32_t demo = a.add(), subscriber = b.add();
	EXPECT_EQ(b.subscribe(subscriber, demo), 0);
	EXPECT_EQ(b.unsubscribe(subscriber, demo), 0);
	a.request(wire::notify, demo, objid(demo) + method("tick") + no_reply);
	a.drain();
	EXPECT_THAT(b.drain(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------------------
// What others hear of a removal, and in which order.

static received object_event(uint16_t counter, uint32_t listener, const std::string &name, uint32_t object,
	const std::string &object_path)
{
	return exactly(wire::invoke, counter, 0,
		objid(listener) + method(name) +
			payload(wire::named_number("id", object) + wire::named_text("path", object_path)));
}

TEST_F(ubusd, own_listener_hears_of_an_addition_before_its_data_and_of_a_removal_before_its_status)
{
	raw_client a = connect();
	uint32_t listener = a.add();
	ASSERT_EQ(a.listen_to(listener, "ubus.object.*"), 0);
	std::vector<received> added = a.answers(wire::add_object, 0, path("demo"));
	ASSERT_THAT(added, SizeIs(3));
	uint32_t demo = added[1].number(wire::attr_objid);
	EXPECT_EQ(added[0], object_event(1, listener, "ubus.object.add", demo, "demo"));
	EXPECT_EQ(added[1].type(), wire::data);
	EXPECT_THAT(a.answers(wire::remove_object, 0, objid(demo)),
		ElementsAre(data_answer(a, objid(demo)),
			object_event(2, listener, "ubus.object.remove", demo, "demo"),
			final_status(a, 0, 0)));
	EXPECT_NE(a.add(), 0U);
	EXPECT_THAT(a.drain(), IsEmpty()) << "objects without a path are no events";
}

TEST_F(ubusd, removal_ends_subscriptions_then_tells_subscribers_then_sends_the_event)
{
	raw_client a = connect(), b = connect(), c = connect();
	uint32_t demo = a.answers(wire::add_object, 0, path("demo"))[0].number(wire::attr_objid);
	uint32_t of_b = b.add(), also_of_b = b.add(), other = b.add(), of_c = c.add();
	ASSERT_EQ(b.listen_to(other, "*"), 0);
	ASSERT_EQ(a.subscribe(demo, other), 0); // the object that goes has a subscription itself
	ASSERT_EQ(b.subscribe(of_b, demo), 0);
	ASSERT_EQ(c.subscribe(of_c, demo), 0);
	ASSERT_EQ(b.subscribe(also_of_b, demo), 0);
	b.drain();
	a.drain();
	EXPECT_THAT(a.answers(wire::remove_object, 0, objid(demo)),
		ElementsAre(data_answer(a, objid(demo)), active(2, demo, 0), final_status(a, 0, 0)));
	auto gone = [&](uint32_t subscriber) {
		return exactly(wire::unsubscribe, 1, 0, objid(subscriber) + target(demo));
	};
	std::vector<received> heard = b.drain();
	ASSERT_THAT(heard, SizeIs(4));
	EXPECT_EQ(heard[0], active(2, other, 0));
	EXPECT_THAT(std::vector<received>(heard.begin() + 1, heard.begin() + 3),
		UnorderedElementsAre(gone(of_b), gone(also_of_b)));
	EXPECT_EQ(heard[3], object_event(1, other, "ubus.object.remove", demo, "demo"));
	EXPECT_THAT(c.drain(), ElementsAre(gone(of_c)));
}

TEST_F(ubusd, removal_of_a_subscriber_ends_its_subscriptions)
{
	raw_client a = connect(), b = connect();
	uint32_t first = a.add(), second = a.add(), subscriber = b.add();
	ASSERT_EQ(b.subscribe(subscriber, first), 0);
	ASSERT_EQ(b.subscribe(subscriber, second), 0);
	ASSERT_EQ(b.subscribe(subscriber, first), 0);
	a.drain();
	EXPECT_EQ(b.remove(subscriber), 0);
	EXPECT_THAT(a.drain(), UnorderedElementsAre(active(2, first, 0), active(2, second, 0)));
	EXPECT_THAT(b.drain(), IsEmpty());
	EXPECT_THAT(a.answers(wire::notify, first, objid(first) + method("tick")),
		ElementsAre(answer_to(&a, wire::status, first, objid(first) + subscribers({}) + status(0))));
}

TEST_F(ubusd, client_that_disconnects_loses_all_its_objects)
{
	raw_client a = connect(), b = connect(), c = connect();
	uint32_t demo = a.add("demo", demo_signature), watched = b.add(), of_b = b.add(), listener = c.add();
	ASSERT_EQ(a.subscribe(demo, watched), 0);
	ASSERT_EQ(b.subscribe(of_b, demo), 0);
	ASSERT_EQ(c.listen_to(listener, "ubus.object.remove"), 0);
	b.drain();
	a.close();
	EXPECT_EQ(b.receive(), active(2, watched, 0));
	EXPECT_EQ(b.receive(), exactly(wire::unsubscribe, 1, 0, objid(of_b) + target(demo)));
	EXPECT_EQ(c.receive(), object_event(1, listener, "ubus.object.remove", demo, "demo"));
	b.invoke(demo, "echo");
	EXPECT_THAT(b.receive(), final_status(b, demo, 4));
	EXPECT_EQ(b.status_of(wire::lookup, 0, path("demo")), 4);
	EXPECT_NE(b.add("demo"), 0U);
}

// ---------------------------------------------------------------------------------------------------------
// Events.

static std::string event_call(const std::string &name, const std::string &children)
{
	return objid(wire::event_object) + method(name) + payload(children);
}

TEST_F(ubusd, registration_of_a_listener_is_refused_in_the_order_of_the_checks)
{
	raw_client a = connect(), b = connect();
	uint32_t mine = a.add(), foreign = b.add();
	auto registered = [&](const std::string &children) {
		return a.status_of(wire::invoke, wire::event_object, event_call("register", children));
	};
	auto number = [](uint32_t id) { return wire::named_number("object", id); };
	const std::string pattern = wire::named_text("pattern", "x");
	EXPECT_EQ(registered(""), 2);
	EXPECT_EQ(registered(number(mine)), 2);
	EXPECT_EQ(registered(pattern), 2);
	EXPECT_EQ(registered(wire::named_text("object", "x") + pattern), 2);
	EXPECT_EQ(registered(number(mine) + wire::named_number("pattern", 1)), 2);
	EXPECT_EQ(a.status_of(wire::invoke, 1, objid(1) + method("register")), 2) << "without data";
	EXPECT_EQ(registered(number(1023) + pattern), 6);
	EXPECT_EQ(registered(number(foreign) + pattern), 6);
	EXPECT_EQ(registered(number(mine) + wire::named_text("pattern", "")), 6);
	EXPECT_EQ(registered(number(mine + 1) + pattern), 4);
	EXPECT_EQ(registered(pattern + number(mine)), 0);
	EXPECT_EQ(a.status_of(wire::invoke, 1, event_call("forget", pattern + number(mine))), 1);
}

TEST_F(ubusd, sending_of_an_event_is_refused_in_the_order_of_the_checks)
{
	raw_client a = connect();
	auto sent = [&](const std::string &children) {
		return a.status_of(wire::invoke, wire::event_object, event_call("send", children));
	};
	const std::string table = wire::named(wire::table, "data", "");
	EXPECT_EQ(sent(""), 2);
	EXPECT_EQ(sent(table), 2);
	EXPECT_EQ(sent(wire::named_text("id", "x")), 2);
	EXPECT_EQ(sent(wire::named_text("id", "x") + wire::named(wire::array, "data", "")), 2);
	EXPECT_EQ(sent(wire::named_text("id", "ubus.object.add") + table), 6);
	EXPECT_EQ(sent(wire::named_text("id", "ubus.") + table), 6);
	EXPECT_EQ(sent(wire::named_text("id", "ubus") + table), 0);
	EXPECT_EQ(sent(wire::named_text("id", "x") + table), 0);
}

TEST_F(ubusd, event_goes_once_to_each_object_with_a_matching_pattern)
{
	raw_client a = connect(), b = connect();
	std::vector<std::pair<uint32_t, std::string>> listeners;
	for (const char *pattern : {"net.up", "net.*", "*", "net.", "net.u", "net.up*", "net.up.", "up"}) {
		uint32_t object = b.add();
		ASSERT_EQ(b.listen_to(object, pattern), 0);
		listeners.emplace_back(object, pattern);
	}
	uint32_t twice = b.add();
	ASSERT_EQ(b.listen_to(twice, "net.*"), 0);
	ASSERT_EQ(b.listen_to(twice, "net.up"), 0);
	ASSERT_EQ(b.listen_to(twice, "net.up"), 0);
	listeners.emplace_back(twice, "twice");

	std::string children = wire::named_number("n", 1) + wire::named_text("s", "t");
	EXPECT_EQ(a.send_event("net.up", children), 0);
	std::vector<std::string> reached;
	for (const received &frame : b.drain()) {
		EXPECT_EQ(frame, exactly(wire::invoke, frame.seq(), 0,
					 objid(frame.number(wire::attr_objid)) + method("net.up") +
						 payload(children)));
		for (const auto &[object, pattern] : listeners)
			if (object == frame.number(wire::attr_objid))
				reached.push_back(pattern);
	}
	EXPECT_THAT(reached, UnorderedElementsAre("net.up", "net.*", "*", "net.up*", "twice"));
}

TEST_F(ubusd, event_does_not_come_back_to_its_sender)
{
	raw_client a = connect(), b = connect();
	uint32_t of_a = a.add(), of_b = b.add();
	ASSERT_EQ(a.listen_to(of_a, "*"), 0);
	ASSERT_EQ(b.listen_to(of_b, "*"), 0);
	EXPECT_EQ(a.send_event("from.a"), 0);
	EXPECT_THAT(a.drain(), IsEmpty());
	std::vector<received> heard = b.drain();
	ASSERT_THAT(heard, SizeIs(1));
	EXPECT_EQ(heard[0].text(wire::attr_method), "from.a");
	b.send(wire::frame(wire::status, heard[0].seq(), 0, status(0) + objid(of_b)));
	EXPECT_THAT(b.drain(), IsEmpty()) << "a listener's status leads nowhere";
	EXPECT_EQ(b.remove(of_b), 0);
	EXPECT_EQ(a.send_event("from.a"), 0);
	EXPECT_THAT(b.drain(), IsEmpty()) << "the registration has gone with its object";
}

// ---------------------------------------------------------------------------------------------------------
// Access of users other than root.

class ubusd_access : public bus_test
{
protected:
	raw_client root;
	uint32_t with_methods = 0, without_methods = 0, without_path = 0;

	void SetUp() override
	{
		bus_test::SetUp();
		root = connect();
		with_methods = root.add("demo.full", demo_signature);
		without_methods = root.add("demo.bare", "");
		without_path = root.add();
	}
	void TearDown() override
	{
		root.close();
		bus_test::TearDown();
	}
	raw_client connect_as_user(const char *name)
	{
		const passwd *user = getpwnam(name);
		if (!user) {
			ADD_FAILURE() << "no user " << name;
			return {};
		}
		return connect_as(daemon().path(), user->pw_uid, user->pw_gid);
	}
};

TEST_F(ubusd_access, user_without_an_entry_is_turned_away_without_a_hello)
{
	for (auto [uid, gid] : {std::pair<uid_t, gid_t>{54321, 0}, {65534, 54321}}) {
		ASSERT_EQ(setegid(gid), 0);
		ASSERT_EQ(seteuid(uid), 0);
		owned_fd fd = connect_to_path(daemon().path());
		ASSERT_EQ(seteuid(0), 0);
		ASSERT_EQ(setegid(0), 0);
		ASSERT_GE(fd.get(), 0);
		EXPECT_EQ(read_all(fd.get()), "");
	}
	EXPECT_THAT(root.drain(), IsEmpty());
}

TEST_F(ubusd_access, user_adds_objects_without_a_path_only)
{
	raw_client nobody = connect_as_user("nobody");
	EXPECT_THAT(nobody.answers(wire::add_object, 0, path("mine") + signature("")),
		ElementsAre(final_status(nobody, 0, 2)));
	EXPECT_NE(nobody.add(), 0U);
	EXPECT_EQ(root.status_of(wire::lookup, 0, path("mine")), 4);
}

TEST_F(ubusd_access, user_finds_objects_without_methods_only)
{
	raw_client nobody = connect_as_user("nobody");
	EXPECT_THAT(
		nobody.answers(wire::lookup, 0, path("demo.full")), ElementsAre(final_status(nobody, 0, 0)));
	std::vector<received> bare = nobody.answers(wire::lookup, 0, path("demo.bare"));
	ASSERT_THAT(bare, SizeIs(2));
	EXPECT_EQ(bare[0].number(wire::attr_objid), without_methods);
	EXPECT_THAT(paths_in(nobody.answers(wire::lookup, 0)), ElementsAre("demo.bare"));
	EXPECT_EQ(nobody.status_of(wire::lookup, 0, path("demo.f*")), 0);
	EXPECT_EQ(nobody.status_of(wire::lookup, 0, path("nope")), 4);
}

TEST_F(ubusd_access, user_calls_objects_without_a_path_only_and_is_named_to_them)
{
	raw_client nobody = connect_as_user("nobody");
	const group *nogroup = getgrgid(getpwnam("nobody")->pw_gid);
	ASSERT_NE(nogroup, nullptr);
	nobody.invoke(with_methods, "echo");
	EXPECT_THAT(nobody.receive(), final_status(nobody, with_methods, 6));
	nobody.invoke(without_methods, "echo");
	EXPECT_THAT(nobody.receive(), final_status(nobody, without_methods, 6));
	EXPECT_THAT(root.drain(), IsEmpty());
	uint16_t seq = nobody.invoke(without_path, "echo");
	EXPECT_EQ(root.receive(),
		exactly(wire::invoke, seq, nobody.id(),
			objid(without_path) + method("echo") + wire::text(wire::attr_user, "nobody") +
				wire::text(wire::attr_group, nogroup->gr_name) + payload("")));
}

TEST_F(ubusd_access, user_subscribes_to_objects_without_a_path_of_the_same_user_or_group)
{
	raw_client nobody = connect_as_user("nobody"), also_nobody = connect_as_user("nobody"),
		   another = connect_as_user("daemon");
	raw_client in_the_group =
		connect_as(daemon().path(), getpwnam("daemon")->pw_uid, getpwnam("nobody")->pw_gid);
	uint32_t subscriber = nobody.add();
	EXPECT_EQ(nobody.subscribe(subscriber, with_methods), 4);
	EXPECT_EQ(nobody.subscribe(subscriber, without_methods), 4);
	EXPECT_EQ(nobody.subscribe(subscriber, without_path), 4);
	EXPECT_EQ(nobody.subscribe(subscriber, another.add()), 4);
	EXPECT_EQ(nobody.subscribe(subscriber, also_nobody.add()), 0);
	EXPECT_EQ(nobody.subscribe(subscriber, in_the_group.add()), 0);
	EXPECT_EQ(another.subscribe(another.add(), in_the_group.add()), 0) << "the same user, another group";
	EXPECT_EQ(root.subscribe(without_path, subscriber), 4) << "nor does root";
}

TEST_F(ubusd_access, user_has_nothing_to_do_with_events)
{
	raw_client nobody = connect_as_user("nobody");
	uint32_t mine = nobody.add();
	EXPECT_EQ(nobody.listen_to(mine, "*"), 6);
	EXPECT_EQ(nobody.send_event("x"), 6);
	EXPECT_EQ(nobody.status_of(wire::invoke, 1, event_call("send", "")), 2);
}

// ---------------------------------------------------------------------------------------------------------
// The stream: messages in any pieces, and what is none.

// One valid frame of each kind that a client may send, about these objects.
static std::vector<std::string> frames_of_all_kinds(uint32_t own, uint32_t foreign, uint32_t foreign_client)
{
	const std::string call = objid(foreign) + method("echo") + payload(wire::named_number("n", 1));
	const std::string event =
		wire::named_text("id", "x.y") + wire::named(wire::table, "data", wire::named_text("a", "b"));
	return {
		wire::frame(wire::ping, 1, 2, method("ping")),
		wire::frame(wire::lookup, 2, 0),
		wire::frame(wire::lookup, 3, 0, path("demo*")),
		wire::frame(wire::lookup, 4, 0, path("demo")),
		wire::frame(wire::invoke, 5, foreign, call),
		wire::frame(wire::invoke, 6, foreign, call + no_reply),
		wire::frame(wire::invoke, 7, 1,
			event_call("register",
				wire::named_number("object", own) + wire::named_text("pattern", "x.*"))),
		wire::frame(wire::invoke, 8, 1, event_call("send", event)),
		wire::frame(wire::add_object, 9, 0, path("fuzzed") + signature(demo_signature)),
		wire::frame(wire::add_object, 10, 0),
		wire::frame(wire::subscribe, 11, 0, objid(own) + target(foreign)),
		wire::frame(wire::notify, 12, own,
			objid(own) + method("tick") + payload(wire::named_number("n", 1))),
		wire::frame(wire::unsubscribe, 13, 0, objid(own) + target(foreign)),
		wire::frame(wire::data, 14, foreign_client, objid(own) + payload(wire::named_number("n", 1))),
		wire::frame(wire::status, 15, foreign_client, status(0) + objid(own)),
		wire::frame(wire::remove_object, 16, 0, objid(own)),
		wire::frame(wire::hello, 17, 0),
		wire::frame(wire::monitor, 18, 0),
		wire::frame(200, 19, 0, method("later")),
	};
}

// Asks for what only a bus in good order answers right.
static void expect_good_service(raw_client *client, uint32_t object)
{
	const std::string body = method("still there");
	uint16_t ping = client->request(wire::ping, 1, body);
	uint16_t look = client->request(wire::lookup, 2, path("demo"));
	uint16_t call = client->invoke(object, "echo", wire::named_number("n", 1));
	received found, called, pinged;
	for (int wanted = 3; wanted > 0;) {
		received frame = client->receive();
		ASSERT_TRUE(frame.ok());
		if (frame.type() == wire::data && frame.seq() == ping && frame.peer() == 1)
			pinged = frame, --wanted;
		else if (frame.type() == wire::data && frame.seq() == look && frame.peer() == 2)
			found = frame, --wanted;
		else if (frame.type() == wire::invoke && frame.seq() == call && frame.peer() == client->id())
			called = frame, --wanted;
	}
	EXPECT_EQ(pinged, exactly(wire::data, ping, 1, body));
	EXPECT_EQ(found, exactly(wire::data, look, 2,
				 path("demo") + objid(object) +
					 wire::number(wire::attr_objtype, found.number(wire::attr_objtype)) +
					 signature(demo_signature)));
	EXPECT_EQ(called,
		exactly(wire::invoke, call, client->id(),
			objid(object) + method("echo") + as_root + payload(wire::named_number("n", 1))));
}

TEST_F(ubusd_wire, message_may_come_byte_by_byte)
{
	raw_client a = connect();
	uint32_t object = a.add("demo", demo_signature);
	std::string bytes =
		wire::frame(wire::invoke, 77, object, objid(object) + method("echo") + payload(""));
	for (size_t i = 0; i < bytes.size(); ++i) {
		ASSERT_TRUE(a.send(bytes.substr(i, 1)));
		// Another client's answer shows that the daemon has been round since.
		ASSERT_EQ(connect().status_of(wire::ping, 0), 0);
	}
	EXPECT_EQ(a.receive(),
		exactly(wire::invoke, 77, a.id(), objid(object) + method("echo") + as_root + payload("")));
}

TEST_F(ubusd_wire, message_may_be_cut_anywhere)
{
	raw_client a = connect(), b = connect();
	const std::string first = wire::frame(wire::ping, 1, 7, method("first"));
	const std::string second = wire::frame(wire::ping, 2, 7, method("second"));
	const std::string both = first + second;
	for (size_t cut = 1; cut < both.size(); ++cut) {
		a.send(both.substr(0, cut));
		ASSERT_EQ(b.status_of(wire::ping, 0), 0);
		a.send(both.substr(cut));
		EXPECT_EQ(a.receive(), exactly(wire::data, 1, 7, method("first"))) << cut;
		EXPECT_EQ(a.receive(), exactly(wire::status, 1, 7, status(0))) << cut;
		EXPECT_EQ(a.receive(), exactly(wire::data, 2, 7, method("second"))) << cut;
		EXPECT_EQ(a.receive(), exactly(wire::status, 2, 7, status(0))) << cut;
	}
}

TEST_F(ubusd_wire, many_messages_may_come_in_one_write)
{
	raw_client a = connect();
	std::string bytes;
	for (uint32_t i = 0; i < 3000; ++i)
		bytes += wire::frame(wire::ping, i, i, i % 3 ? "" : path(std::string(i % 50, 'x')));
	ASSERT_TRUE(a.send(bytes));
	for (uint32_t i = 0; i < 3000; ++i) {
		ASSERT_EQ(
			a.receive(), exactly(wire::data, i, i, i % 3 ? "" : path(std::string(i % 50, 'x'))));
		ASSERT_EQ(a.receive(), exactly(wire::status, i, i, status(0)));
	}
}

TEST_F(ubusd_wire, greatest_message_passes_and_a_greater_one_ends_its_connection)
{
	raw_client a = connect(), b = connect();
	const std::string filling(wire::body_bytes_max - 8, 'x');
	ASSERT_TRUE(a.send(wire::frame(wire::ping, 1, 2, wire::attribute(99, filling))));
	EXPECT_EQ(a.receive(), exactly(wire::data, 1, 2, wire::attribute(99, filling)));
	EXPECT_EQ(a.receive(), exactly(wire::status, 1, 2, status(0)));
	a.send(wire::frame(wire::ping, 3, 4).substr(0, 8) + wire::be32(wire::body_bytes_max + 1));
	EXPECT_TRUE(a.is_closed());
	EXPECT_EQ(b.status_of(wire::ping, 0), 0);
}

TEST_F(ubusd_wire, impossible_length_ends_the_connection_and_no_other)
{
	raw_client healthy = connect();
	uint32_t object = healthy.add("demo", demo_signature);
	for (uint32_t length : {0U, 1U, 2U, 3U, 0xffffffU, 0x100004U, 0x100001U}) {
		raw_client broken = connect();
		uint32_t theirs = broken.add("theirs");
		ASSERT_NE(theirs, 0U);
		broken.send(
			wire::frame(wire::ping, 1, 2).substr(0, 8) + wire::be32(length) + std::string(64, 0));
		EXPECT_TRUE(broken.is_closed()) << length;
		EXPECT_EQ(healthy.status_of(wire::lookup, 0, path("theirs")), 4);
		expect_good_service(&healthy, object);
	}
}

TEST_F(ubusd_wire, requests_before_a_malformed_one_take_effect)
{
	raw_client a = connect(), b = connect();
	uint32_t listener = b.add();
	ASSERT_EQ(b.listen_to(listener, "ubus.object.add"), 0);
	a.send(wire::frame(wire::add_object, 1, 0, path("brief")) +
		wire::frame(wire::ping, 1, 1).substr(0, 8) + wire::be32(2));
	EXPECT_EQ(b.receive().type(), wire::invoke);
	EXPECT_TRUE(a.is_closed());
}

TEST_F(ubusd_wire, attribute_that_overruns_its_message_ends_the_message_and_not_the_connection)
{
	raw_client a = connect();
	uint32_t object = a.add();
	for (uint32_t word : {0x03000009U, 0x03ffffffU, 0x03000003U, 0x03000000U}) {
		std::string cut = method("echo") + wire::be32(word) + wire::be32(object);
		EXPECT_EQ(a.status_of(wire::invoke, object, cut), 2) << word;
	}
	EXPECT_EQ(a.status_of(wire::ping, 0), 0);
}

TEST_F(ubusd_wire, client_may_vanish_at_any_byte)
{
	raw_client healthy = connect();
	uint32_t object = healthy.add("demo", demo_signature);
	size_t descriptors = descriptor_count(&healthy);
	std::string all;
	for (const std::string &frame : frames_of_all_kinds(1, object, healthy.id()))
		all += frame;
	for (size_t cut = 0; cut < all.size(); cut += cut < 100 ? 1 : 7) {
		raw_client brief = connect();
		brief.send(all.substr(0, cut));
		brief.close();
	}
	healthy.drain();
	expect_good_service(&healthy, object);
	EXPECT_TRUE(eventually([&] { return descriptor_count(&healthy) == descriptors; }));
	EXPECT_EQ(healthy.status_of(wire::lookup, 0, path("fuzzed")), 4) << "its objects have gone with it";
}

TEST_F(ubusd_wire, client_may_vanish_before_its_hello)
{
	raw_client healthy = connect();
	size_t descriptors = descriptor_count(&healthy);
	for (int i = 0; i < 200; ++i)
		EXPECT_GE(connect_to_path(daemon().path()).get(), 0);
	EXPECT_EQ(healthy.status_of(wire::ping, 0), 0);
	EXPECT_TRUE(eventually([&] { return descriptor_count(&healthy) == descriptors; }));
}

TEST_F(ubusd_wire, path_of_a_client_that_has_gone_is_free_for_whoever_connects_after_it)
{
	raw_client a = connect();
	ASSERT_NE(a.add("demo"), 0U);
	siginfo_t info;
	kill(daemon().pid(), SIGSTOP);
	ASSERT_EQ(waitid(P_PID, static_cast<id_t>(daemon().pid()), &info, WSTOPPED), 0);
	for (int count = 0; count < 200; ++count)
		a.request(wire::ping, 0);
	a.close();
	owned_fd again = connect_to_path(daemon().path());
	ASSERT_TRUE(
		write_all(again.get(), wire::frame(wire::add_object, 1, 0,
					       path("demo") + wire::attribute(wire::attr_signature, ""))));
	kill(daemon().pid(), SIGCONT);
	EXPECT_EQ(receive_frame(again.get()).type(), wire::hello);
	EXPECT_EQ(receive_frame(again.get()).type(), wire::data);
	EXPECT_EQ(receive_frame(again.get()).status(), 0);
}

TEST_F(ubusd_wire, attributes_with_names_count_as_those_without)
{
	raw_client a = connect();
	std::string named = wire::number(wire::attr_objid, 1);
	named[0] = static_cast<char>(named[0] | 0x80);
	EXPECT_EQ(a.status_of(wire::remove_object, 0, named), 6);
	EXPECT_EQ(a.status_of(wire::remove_object, 0, wire::number(wire::attr_objid, 5000)), 4);
}

// ubusd hears them if it reads them before their sender has hung up.
TEST_F(standin_ubusd_wire, last_words_of_a_client_are_heard)
{
	raw_client b = connect();
	uint32_t listener = b.add();
	ASSERT_EQ(b.listen_to(listener, "farewell"), 0);
	raw_client a = connect();
	std::string bytes;
	for (int i = 0; i < 100; ++i)
		bytes += wire::frame(wire::ping, 1, 1, method("whose answer nobody reads"));
	a.send(bytes + wire::frame(wire::invoke, 2, 1,
			       event_call("send", wire::named_text("id", "farewell") +
							  wire::named(wire::table, "data", ""))));
	a.close();
	EXPECT_EQ(b.receive().text(wire::attr_method), "farewell");
}

// ---------------------------------------------------------------------------------------------------------
// Slow readers, floods and crowds.

// A child process that does `body` for ever; it ends with this object.
class background
{
	pid_t pid_;

public:
	explicit background(const std::function<void()> &body)
	{
		fflush(nullptr);
		pid_ = fork();
		if (pid_ != 0)
			return;
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		for (;;)
			body();
	}
	background(const background &) = delete;
	background &operator=(const background &) = delete;
	~background()
	{
		kill(pid_, SIGKILL);
		waitpid(pid_, nullptr, 0);
	}
};

TEST_F(ubusd_wire, slow_reader_misses_messages_and_holds_nobody_up)
{
	raw_client a = connect(), slow = connect();
	uint32_t demo = a.add(), subscriber = slow.add();
	ASSERT_EQ(slow.subscribe(subscriber, demo), 0);
	a.drain();
	const std::string filling = wire::named(wire::unspec, "filling", std::string(10'000, 'x'));
	constexpr uint32_t count = 500;
	for (uint32_t i = 0; i < count; ++i)
		a.request(wire::notify, demo,
			objid(demo) + method("tick") + payload(wire::named_number("i", i) + filling) +
				no_reply);
	ASSERT_EQ(a.status_of(wire::ping, 0), 0);
	EXPECT_LT(daemon().resident_kib(), 128 * 1024);

	// What arrives is whole, and without a gap up to where the queue was full.
	uint32_t arrived = 0;
	auto has_more = [&] {
		// As the socket empties the daemon refills it; it has been round after two answers to somebody else.
		for (int round = 0; round < 2 && !wait_for(slow.fd(), POLLIN, 0); ++round)
			EXPECT_EQ(a.status_of(wire::ping, 0), 0);
		return wait_for(slow.fd(), POLLIN, 0);
	};
	while (has_more()) {
		received frame = slow.receive();
		ASSERT_TRUE(frame.ok());
		ASSERT_EQ(frame.attributes(), no_reply + objid(subscriber) + method("tick") + as_root +
						      payload(wire::named_number("i", arrived) + filling));
		++arrived;
	}
	// The queue holds 1 MiB, the socket some more.
	EXPECT_GT(arrived, 90U);
	EXPECT_LT(arrived, count);
	EXPECT_THAT(slow.drain(), IsEmpty());
	a.request(wire::notify, demo, objid(demo) + method("tock") + no_reply);
	EXPECT_EQ(slow.receive().text(wire::attr_method), "tock");
}

// ubusd serves one client for as long as it keeps sending.
TEST_F(standin_ubusd_wire, flood_without_reading_starves_nobody_and_costs_bounded_memory)
{
	raw_client healthy = connect();
	uint32_t object = healthy.add("demo", demo_signature);
	std::string burst;
	for (int i = 0; i < 500; ++i)
		burst += wire::frame(wire::ping, 1, 1, method("flood")) +
			 wire::frame(wire::lookup, 2, 0, path("demo"));
	std::vector<raw_client> flooders(4);
	std::vector<std::unique_ptr<background>> floods;
	for (raw_client &flooder : flooders) {
		flooder = connect();
		floods.push_back(std::make_unique<background>([&] { flooder.send(burst); }));
	}
	for (int i = 0; i < 200 && !HasFailure(); ++i)
		expect_good_service(&healthy, object);
	EXPECT_LT(daemon().resident_kib(), 128 * 1024);
}

TEST_F(ubusd_wire, look_up_of_everything_goes_on_as_its_client_reads)
{
	raw_client a = connect(), b = connect();
	std::vector<std::string> names;
	for (int i = 0; i < 2000; ++i) {
		names.push_back("demo." + std::to_string(10'000 + i) + std::string(1000, 'x'));
		ASSERT_NE(a.add(names.back()), 0U);
	}
	// Far more than the queue and the socket take; nothing is read before it has all been asked for.
	uint16_t seq = b.request(wire::lookup, 0);
	ASSERT_EQ(a.status_of(wire::ping, 0), 0);
	for (const std::string &name : names) {
		received frame = b.receive();
		ASSERT_EQ(frame.text(wire::attr_objpath), name);
		ASSERT_EQ(frame.seq(), seq);
	}
	EXPECT_EQ(b.receive(), exactly(wire::status, seq, 0, status(0)));
}

// ubusd drops what exceeds the queue where a pattern asks for it, the status too, and answers others in between.
TEST_F(standin_ubusd_wire, look_up_with_many_results_goes_on_as_its_client_reads)
{
	raw_client a = connect(), b = connect();
	std::vector<std::string> names;
	for (int i = 0; i < 2000; ++i) {
		names.push_back("demo." + std::to_string(10'000 + i) + std::string(1000, 'x'));
		ASSERT_NE(a.add(names.back()), 0U);
	}
	ASSERT_NE(b.add("eemo"), 0U);
	// Far more than the queue and the socket hold; nothing is read before all of it has been asked for.
	b.send(wire::frame(wire::lookup, 1, 0, path("demo*")) + wire::frame(wire::lookup, 2, 0) +
		wire::frame(wire::ping, 3, 0));
	ASSERT_EQ(a.status_of(wire::ping, 0), 0);
	EXPECT_LT(daemon().resident_kib(), 128 * 1024);
	for (uint16_t seq : {1, 2}) {
		for (const std::string &name : names) {
			received frame = b.receive();
			ASSERT_EQ(frame.text(wire::attr_objpath), name);
			ASSERT_EQ(frame.seq(), seq);
		}
		if (seq == 2) {
			EXPECT_EQ(b.receive().text(wire::attr_objpath), "eemo");
		}
		EXPECT_EQ(b.receive(), exactly(wire::status, seq, 0, status(0)));
	}
	EXPECT_EQ(b.receive(), exactly(wire::data, 3, 0));
	EXPECT_EQ(b.receive(), exactly(wire::status, 3, 0, status(0)));
}

// ubusd goes on at an object that may be gone.
TEST_F(standin_ubusd_wire, look_up_survives_changes_and_its_client_may_leave_it)
{
	raw_client a = connect();
	std::vector<uint32_t> objects;
	for (int i = 0; i < 1000; ++i)
		objects.push_back(a.add("demo." + std::to_string(10'000 + i) + std::string(2000, 'x')));
	raw_client reader = connect(), leaver = connect();
	for (raw_client *client : {&reader, &leaver})
		client->request(wire::lookup, 0, path("demo.*"));
	EXPECT_EQ(reader.receive().text(wire::attr_objpath).substr(0, 10), "demo.10000");
	for (size_t i = 1; i < objects.size(); i += 2)
		EXPECT_EQ(a.remove(objects[i]), 0);
	EXPECT_NE(a.add("demo.99999"), 0U);
	leaver.close();
	std::string last;
	received frame;
	while ((frame = reader.receive()).type() == wire::data) {
		EXPECT_LT(last, frame.text(wire::attr_objpath));
		last = frame.text(wire::attr_objpath);
	}
	EXPECT_EQ(last, "demo.99999") << "what came before its turn is found";
	EXPECT_EQ(frame, exactly(wire::status, reader.last_seq(), 0, status(0)));
}

TEST_F(ubusd_wire, passed_descriptors_are_not_kept)
{
	raw_client a = connect();
	size_t descriptors = descriptor_count(&a);
	pipe_pair pipe;
	for (int i = 0; i < 50; ++i) {
		std::string bytes = wire::frame(wire::ping, 1, 1);
		iovec part{bytes.data(), bytes.size()};
		alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
		msghdr text{};
		text.msg_iov = &part;
		text.msg_iovlen = 1;
		text.msg_control = control;
		text.msg_controllen = sizeof(control);
		cmsghdr *rights = CMSG_FIRSTHDR(&text);
		rights->cmsg_level = SOL_SOCKET;
		rights->cmsg_type = SCM_RIGHTS;
		rights->cmsg_len = CMSG_LEN(sizeof(int));
		int fd = pipe.write_end.get();
		memcpy(CMSG_DATA(rights), &fd, sizeof(fd));
		ASSERT_EQ(sendmsg(a.fd(), &text, 0), static_cast<ssize_t>(bytes.size()));
		EXPECT_EQ(a.receive(), exactly(wire::data, 1, 1));
		EXPECT_EQ(a.receive(), exactly(wire::status, 1, 1, status(0)));
	}
	EXPECT_EQ(descriptor_count(&a), descriptors);
	pipe.write_end.reset();
	EXPECT_EQ(read_all(pipe.read_end.get()), "") << "nobody else has the other end";
}

// ---------------------------------------------------------------------------------------------------------
// Broken frames, thousands of them: each a valid one with something changed.

class mutator
{
	std::mt19937 random_;

	uint32_t below(size_t bound)
	{
		return std::uniform_int_distribution<uint32_t>(0, static_cast<uint32_t>(bound) - 1)(random_);
	}
	static void put_number(std::string *bytes, size_t at, uint32_t value)
	{
		if (at + 4 <= bytes->size())
			bytes->replace(at, 4, wire::be32(value));
	}

	void flip_bits(std::string *bytes)
	{
		for (uint32_t left = 1 + below(4); left > 0; --left)
			(*bytes)[below(bytes->size())] ^= static_cast<char>(1U << below(8));
	}
	// A length or id somewhere in the body becomes an interesting number.
	void change_word(std::string *bytes)
	{
		static constexpr uint32_t words[] = {0, 1, 3, 4, 5, 7, 8, 12, 0x7f, 0xff, 0xffff, 0xfffffc,
			0xffffff, 0x7fffffff, 0x80000000, 0xffffffff, 0x03000008, 0x07000004, 0x07000005,
			0x80000004, 0x83000007};
		size_t word = below(bytes->size() / 4) * 4;
		uint32_t value = words[below(std::size(words))];
		if (below(2)) // keep the id, change the length
			value = (wire::number_at(*bytes, word) & 0xff000000) | (value & 0xffffff);
		put_number(bytes, word, value);
	}
	void change_type(std::string *bytes) { (*bytes)[1] = static_cast<char>(below(16)); }
	void truncate(std::string *bytes) { bytes->resize(12 + below(bytes->size() - 11)); }
	void splice(std::string *bytes, const std::string &other)
	{
		bytes->resize(12 + below(bytes->size() - 11));
		*bytes += other.substr(std::min<size_t>(other.size(), 12 + below(other.size())));
	}
	void repeat_part(std::string *bytes)
	{
		size_t from = below(bytes->size());
		bytes->insert(from, bytes->substr(from, below(64)));
	}
	// Makes the outer length fit again, so that what is broken is inside.
	static void mend(std::string *bytes)
	{
		put_number(bytes, 8, static_cast<uint32_t>(bytes->size() - 8));
	}

public:
	explicit mutator(uint32_t seed) : random_(seed) {}

	std::string operator()(const std::vector<std::string> &corpus)
	{
		std::string bytes = corpus[below(corpus.size())];
		for (uint32_t left = 1 + below(3); left > 0; --left) {
			switch (below(6)) {
			case 0:
				flip_bits(&bytes);
				break;
			case 1:
				change_word(&bytes);
				break;
			case 2:
				change_type(&bytes);
				break;
			case 3:
				truncate(&bytes);
				break;
			case 4:
				splice(&bytes, corpus[below(corpus.size())]);
				break;
			default:
				repeat_part(&bytes);
				break;
			}
		}
		// The others break the stream, and with it the connection.
		if (below(16))
			mend(&bytes);
		return bytes;
	}
};

// Sends broken frames about an object of its own and one of somebody else, anew when it is turned out.
class hostile_client
{
	std::string path_;
	uint32_t object_, owner_;
	raw_client client_;
	std::vector<std::string> corpus_;

	void enter()
	{
		client_ = raw_client(path_);
		corpus_ = frames_of_all_kinds(client_.add(), object_, owner_);
	}
	bool is_turned_out() const
	{
		char chunk[65536];
		ssize_t count;
		while ((count = recv(client_.fd(), chunk, sizeof(chunk), MSG_DONTWAIT)) > 0)
			;
		return count == 0 || errno != EAGAIN;
	}

public:
	hostile_client(std::string path, uint32_t object, uint32_t owner)
		: path_(std::move(path)), object_(object), owner_(owner)
	{
		enter();
	}
	void send(mutator *broken)
	{
		if (!client_.send((*broken)(corpus_)) || is_turned_out())
			enter();
	}
};

TEST_F(ubusd_wire, thousands_of_broken_frames_change_nothing_for_others)
{
	raw_client healthy = connect();
	uint32_t object = healthy.add("demo", demo_signature);
	size_t descriptors = descriptor_count(&healthy);
	long resident_before = 0;
	constexpr uint32_t seeds = 400;
	for (uint32_t seed = 1; seed <= seeds && !HasFailure(); ++seed) {
		SCOPED_TRACE("seed " + std::to_string(seed));
		mutator broken(seed);
		hostile_client hostile(daemon().path(), object, healthy.id());
		for (int left = 50; left > 0; --left)
			hostile.send(&broken);
		expect_good_service(&healthy, object);
		if (seed == seeds / 4)
			resident_before = daemon().resident_kib();
	}
	healthy.drain();
	EXPECT_TRUE(eventually([&] { return descriptor_count(&healthy) == descriptors; }));
	EXPECT_LT(daemon().resident_kib(), resident_before + 8 * 1024);
	EXPECT_EQ(paths_in(healthy.answers(wire::lookup, 0)), std::vector<std::string>{"demo"});
}

TEST_F(ubusd_wire, random_bytes_change_nothing_for_others)
{
	raw_client healthy = connect();
	uint32_t object = healthy.add("demo", demo_signature);
	std::mt19937 random(4711);
	for (int round = 0; round < 100 && !HasFailure(); ++round) {
		raw_client hostile = connect();
		std::string bytes(1000, 0);
		for (char &byte : bytes)
			byte = static_cast<char>(random());
		// Half of them look like a message up to its length.
		if (round % 2)
			bytes.replace(0, 12,
				wire::frame(static_cast<uint8_t>(round % 12), 1, 1).substr(0, 8) +
					wire::be32(992));
		hostile.send(bytes);
		hostile.close();
		expect_good_service(&healthy, object);
	}
}

// ---------------------------------------------------------------------------------------------------------
// Bounds, and what the protocol leaves open.

TEST_F(standin_ubusd, objects_of_a_client_are_bounded)
{
	raw_client a = connect(), b = connect();
	constexpr int objects_max = 4096;
	for (int i = 0; i < objects_max; ++i)
		ASSERT_NE(a.add(), 0U) << i;
	EXPECT_THAT(a.answers(wire::add_object, 0), ElementsAre(final_status(a, 0, 11)));
	EXPECT_THAT(a.answers(wire::add_object, 0, path("demo") + signature(demo_signature)),
		ElementsAre(final_status(a, 0, 11)));
	EXPECT_NE(b.add("demo"), 0U)
		<< "what was refused has left nothing, and others have bounds of their own";
	a.close();
	a = connect();
	EXPECT_NE(a.add(), 0U);
}

TEST_F(standin_ubusd, bytes_of_the_objects_of_a_client_are_bounded)
{
	raw_client a = connect(), b = connect();
	const std::string great = wire::named(wire::table, std::string(60'000, 'm'), "");
	int count = 0;
	uint32_t first = a.add("0", great);
	for (count = 1; count < 1000 && a.add(std::to_string(count), great) != 0;)
		++count;
	EXPECT_GT(count, 250);
	EXPECT_LT(count, 300);
	EXPECT_EQ(a.status_of(wire::add_object, 0, path("last") + signature(great)), 11);
	EXPECT_EQ(a.status_of(wire::lookup, 0, path("last")), 4);
	EXPECT_EQ(a.remove(first), 0);
	EXPECT_NE(a.add("last", great), 0U);
	EXPECT_NE(b.add("other", great), 0U);
}

TEST_F(standin_ubusd, object_that_could_not_be_looked_up_is_refused)
{
	raw_client a = connect();
	const std::string great = signature(wire::named(wire::table, std::string(65'000, 'm'), ""));
	// The answer to a look-up has 16 bytes more than the request.
	const std::string fits(wire::body_bytes_max - 4 - great.size() - 4 - 16 - 4, 'p');
	EXPECT_EQ(a.status_of(wire::add_object, 0, path(fits + "12345678") + great), 11);
	EXPECT_EQ(a.status_of(wire::add_object, 0, path(fits) + great), 0);
	EXPECT_THAT(paths_in(a.answers(wire::lookup, 0)), ElementsAre(fits));
}

TEST_F(standin_ubusd, call_that_grows_beyond_a_message_is_refused)
{
	raw_client a = connect();
	uint32_t object = a.add();
	auto call = [&](size_t length) {
		return objid(object) + method("echo") + payload(std::string(length, 0));
	};
	// The caller's names take 24 bytes.
	size_t fits = wire::body_bytes_max - 4 - call(0).size() - 24;
	uint16_t seq = a.request(wire::invoke, object, call(fits));
	EXPECT_EQ(a.receive(),
		exactly(wire::invoke, seq, a.id(),
			objid(object) + method("echo") + as_root + payload(std::string(fits, 0))));
	EXPECT_EQ(a.status_of(wire::invoke, object, call(fits + 4)), 11);
	EXPECT_EQ(a.status_of(wire::notify, object, call(fits + 4)), 11);
}

TEST_F(standin_ubusd, subscriptions_of_a_client_are_bounded)
{
	raw_client a = connect(), b = connect(), c = connect();
	uint32_t demo = a.add(), other = a.add(), subscriber = b.add();
	constexpr int subscriptions_max = 4096;
	for (int i = 0; i < subscriptions_max; ++i)
		ASSERT_EQ(b.subscribe(subscriber, demo), 0) << i;
	EXPECT_EQ(b.subscribe(subscriber, other), 11);
	EXPECT_EQ(c.subscribe(c.add(), demo), 11) << "the list of one object's subscribers is bounded, too";
	EXPECT_EQ(c.subscribe(c.add(), other), 0);
	a.drain();
	EXPECT_EQ(a.answers(wire::notify, demo, objid(demo) + method("tick"))[0]
			  .find(wire::attr_subscribers)
			  .value_or("")
			  .size(),
		size_t{8} * subscriptions_max);
	EXPECT_EQ(b.unsubscribe(subscriber, demo), 0);
	EXPECT_EQ(b.subscribe(subscriber, other), 0);
	EXPECT_EQ(a.remove(demo), 0);
	EXPECT_EQ(b.subscribe(subscriber, other), 0);
}

TEST_F(standin_ubusd, patterns_of_a_client_are_bounded)
{
	raw_client a = connect();
	uint32_t first = a.add(), second = a.add();
	constexpr int patterns_max = 1024;
	for (int i = 0; i < patterns_max; ++i)
		ASSERT_EQ(a.listen_to(i % 2 ? first : second, "pattern." + std::to_string(i)), 0) << i;
	EXPECT_EQ(a.listen_to(first, "one more"), 11);
	EXPECT_EQ(a.listen_to(first, "pattern.1"), 0) << "what is there already is not counted again";
	EXPECT_EQ(a.remove(second), 0);
	EXPECT_EQ(a.listen_to(first, "one more"), 0);
	uint32_t third = a.add();
	const std::string great(900'000, 'p');
	int count = 0;
	while (count < 100 && a.listen_to(third, std::to_string(count) + great) == 0)
		++count;
	EXPECT_EQ(count, 18) << "their bytes are bounded with those of the objects";
}

TEST_F(standin_ubusd, clients_are_bounded_and_the_next_one_finds_its_connection_closed)
{
	constexpr size_t clients_max = 1024;
	rlimit limit{};
	ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
	rlimit raised = {std::max<rlim_t>(limit.rlim_cur, clients_max + 100), limit.rlim_max};
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0) << "needs 1124 descriptors";
	{
		wait_until_alone();
		std::vector<raw_client> crowd;
		while (crowd.size() < clients_max && !HasFailure())
			crowd.push_back(connect());
		EXPECT_EQ(read_all(connect_to_path(daemon().path()).get()), "");
		EXPECT_EQ(crowd.front().status_of(wire::ping, 0), 0);
		crowd.pop_back();
		EXPECT_TRUE(eventually([&] {
			owned_fd fd = connect_to_path(daemon().path());
			return receive_frame(fd.get()).ok();
		}));
	}
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST_F(standin_ubusd, announced_bytes_take_no_memory_before_they_come)
{
	std::vector<raw_client> announcers;
	long before = daemon().resident_kib();
	for (int i = 0; i < 200; ++i) {
		announcers.push_back(connect());
		announcers.back().send(
			wire::frame(wire::ping, 1, 1).substr(0, 8) + wire::be32(wire::body_bytes_max));
	}
	ASSERT_EQ(connect().status_of(wire::ping, 0), 0);
	EXPECT_LT(daemon().resident_kib(), before + 8 * 1024);
}

TEST_F(standin_ubusd, other_version_ends_the_connection)
{
	raw_client a = connect(), b = connect();
	std::string bytes = wire::frame(wire::ping, 1, 1);
	bytes[0] = 1;
	a.send(bytes);
	EXPECT_TRUE(a.is_closed());
	EXPECT_EQ(b.status_of(wire::ping, 0), 0);
}

TEST_F(standin_ubusd, message_whose_length_is_no_multiple_of_four_is_that_long)
{
	raw_client a = connect();
	for (uint32_t length : {5U, 6U, 7U, 9U}) {
		std::string odd = wire::frame(wire::ping, 1, 1).substr(0, 8) + wire::be32(length) +
				  std::string(length - 4, 'x');
		a.send(odd + wire::frame(wire::ping, 2, 2, method("aligned again")));
		odd[1] = wire::data;
		EXPECT_EQ(read_exactly(a.fd(), odd.size()), odd);
		EXPECT_EQ(a.receive(), exactly(wire::status, 1, 1, status(0)));
		EXPECT_EQ(a.receive(), exactly(wire::data, 2, 2, method("aligned again")));
		EXPECT_EQ(a.receive(), exactly(wire::status, 2, 2, status(0)));
	}
}

TEST_F(standin_ubusd, access_control_and_monitoring_are_not_supported)
{
	raw_client a = connect();
	for (uint32_t object : {2U, 3U})
		EXPECT_EQ(
			a.status_of(wire::invoke, object, objid(object) + method("query") + payload("")), 8);
}

TEST_F(standin_ubusd, running_out_of_descriptors_makes_connections_wait_without_spinning)
{
	wait_until_alone();
	raw_client a = connect();
	rlimit before{};
	ASSERT_EQ(prlimit(daemon().pid(), RLIMIT_NOFILE, nullptr, &before), 0);
	rlimit none = {own_descriptors + 1, before.rlim_max};
	ASSERT_EQ(prlimit(daemon().pid(), RLIMIT_NOFILE, &none, nullptr), 0);
	owned_fd waiting = connect_to_path(daemon().path());
	ASSERT_TRUE(eventually([&] { return daemon().errors() != ""; }));
	long ticks = daemon().ticks_used();
	EXPECT_FALSE(wait_for(waiting.get(), POLLIN, 1500));
	EXPECT_LE(daemon().ticks_used(), ticks + 20) << "of about 150, had it spun";
	EXPECT_EQ(a.status_of(wire::ping, 0), 0);
	ASSERT_EQ(prlimit(daemon().pid(), RLIMIT_NOFILE, &before, nullptr), 0);
	EXPECT_EQ(receive_frame(waiting.get()).type(), wire::hello);
	EXPECT_THAT(daemon().take_errors(), HasSubstr("ubusd: unable to accept on"));
}

// ---------------------------------------------------------------------------------------------------------
// The process.

TEST_F(standin_ubusd, process_sleeps_while_nothing_happens)
{
	raw_client a = connect();
	uint32_t object = a.add("demo", demo_signature);
	expect_good_service(&a, object);
	auto switches = [&] {
		std::string text = read_file("/proc/" + std::to_string(daemon().pid()) + "/status");
		return text.substr(std::min(text.find("voluntary_ctxt_switches"), text.size()));
	};
	std::string before;
	EXPECT_TRUE(eventually([&] { return std::exchange(before, switches()) == switches(); }));
	EXPECT_FALSE(wait_for(a.fd(), POLLIN, 300));
	EXPECT_EQ(switches(), before);
}

namespace
{

// What /proc tells about a process's descriptor; empty if it is not open.
std::string descriptor_info(pid_t pid, int fd)
{
	return read_file("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(fd));
}

unsigned long flags_in(const std::string &info)
{
	size_t at = info.find("flags:");
	return at == std::string::npos ? 0 : strtoul(info.c_str() + at + strlen("flags:"), nullptr, 8);
}

// The flag there of descriptors that never block: the kernel's, which of an emulated program is not O_NONBLOCK.
unsigned long nonblocking_flag()
{
	pipe_pair pipe;
	unsigned long blocking = flags_in(descriptor_info(getpid(), pipe.read_end.get()));
	set_nonblocking(pipe.read_end.get());
	return flags_in(descriptor_info(getpid(), pipe.read_end.get())) & ~blocking;
}

} // namespace

TEST_F(standin_ubusd, descriptors_are_closed_on_exec_and_never_block)
{
	raw_client a = connect();
	ASSERT_EQ(a.status_of(wire::ping, 0), 0);
	const unsigned long never_blocks = nonblocking_flag();
	ASSERT_NE(never_blocks, 0u);
	int seen = 0;
	for (int fd = 3; fd < 32; ++fd) {
		std::string info = descriptor_info(daemon().pid(), fd);
		if (info.empty())
			continue;
		++seen;
		EXPECT_TRUE(flags_in(info) & O_CLOEXEC) << fd;
		bool is_epoll = info.find("tfd:") != std::string::npos;
		EXPECT_TRUE(is_epoll || (flags_in(info) & never_blocks)) << fd;
	}
	EXPECT_EQ(seen, 4) << "epoll, signals, the listening socket and one connection";
}

TEST_F(ubusd, everybody_may_connect_to_the_socket)
{
	struct stat info {
	};
	ASSERT_EQ(stat(daemon().path().c_str(), &info), 0);
	EXPECT_TRUE(S_ISSOCK(info.st_mode));
	EXPECT_EQ(info.st_mode & 0777, 0666U);
}

TEST_F(ubusd, clients_see_the_end_of_their_streams_when_the_daemon_ends)
{
	for (int number : {SIGTERM, SIGINT}) {
		raw_client a = connect();
		a.add("demo", demo_signature);
		daemon().stop(number);
		EXPECT_TRUE(a.is_closed());
		daemon().start();
	}
}

TEST_F(ubusd, new_daemon_takes_the_path_of_one_that_was_killed)
{
	raw_client before = connect();
	before.add("demo", demo_signature);
	daemon().restart();
	EXPECT_TRUE(before.is_closed());
	raw_client after = connect();
	EXPECT_EQ(after.status_of(wire::lookup, 0, path("demo")), 4);
	EXPECT_NE(after.add("demo", demo_signature), 0U);
}

// Runs the daemon where it ends by itself.
static child_result run_ubusd(std::vector<std::string> arguments)
{
	arguments.insert(arguments.begin(), APBASE_UBUSD);
	return run_child([&] {
		std::vector<char *> list;
		for (std::string &argument : arguments)
			list.push_back(argument.data());
		list.push_back(nullptr);
		execv(APBASE_UBUSD, list.data());
	});
}

TEST_F(standin_ubusd, second_daemon_does_not_take_the_path_of_one_that_runs)
{
	raw_client a = connect();
	child_result second = run_ubusd({"-s", daemon().path()});
	EXPECT_TRUE(second.exited_with(1)) << second.report();
	EXPECT_EQ(second.err, "ubusd: unable to listen on " + daemon().path() + ": Address already in use\n");
	EXPECT_NE(a.add("demo", demo_signature), 0U);
	raw_client b = connect();
	EXPECT_EQ(b.status_of(wire::lookup, 0, path("demo")), 0);
}

TEST_F(standin_ubusd, socket_file_of_another_daemon_is_not_removed)
{
	raw_client a = connect();
	std::string aside = daemon().path() + ".aside";
	ASSERT_EQ(rename(daemon().path().c_str(), aside.c_str()), 0);
	ASSERT_TRUE(write_file(daemon().path(), "somebody else's"));
	kill(daemon().pid(), SIGTERM);
	EXPECT_TRUE(a.is_closed());
	EXPECT_EQ(read_file(daemon().path()), "somebody else's");
	EXPECT_EQ(unlink(daemon().path().c_str()), 0);
}

TEST(standin_ubusd_options, help_says_what_there_is_and_an_unknown_option_ends_it)
{
	child_result help = run_ubusd({"-h"});
	EXPECT_TRUE(help.exited_with(0)) << help.report();
	EXPECT_THAT(help.out, HasSubstr("-s PATH"));
	EXPECT_THAT(help.out, HasSubstr("-A PATH"));
	EXPECT_EQ(help.err, "");
	for (const char *wrong : {"-x", "--nonsense", "word"}) {
		child_result unknown = run_ubusd({"-s", "/nonexistent/bus", wrong});
		EXPECT_TRUE(unknown.exited_with(1)) << unknown.report();
		EXPECT_EQ(unknown.out, "");
		EXPECT_THAT(unknown.err, HasSubstr("-s PATH"));
	}
}

TEST(standin_ubusd_options, path_of_a_file_that_is_no_socket_ends_it_and_the_file_stays)
{
	private_directory directory;
	const std::string path = directory / "file";
	ASSERT_TRUE(write_file(path, "mine"));
	child_result result = run_ubusd({"-s", path});
	EXPECT_TRUE(result.exited_with(1)) << result.report();
	EXPECT_EQ(result.err, "ubusd: unable to listen on " + path + ": Address already in use\n");
	EXPECT_EQ(read_file(path), "mine");
}

TEST(standin_ubusd_options, path_that_cannot_be_listened_on_ends_it)
{
	private_directory directory;
	for (const std::string &path : {directory / std::string(108, 'x'), directory / "none/bus.sock"}) {
		child_result result = run_ubusd({"-s", path});
		EXPECT_TRUE(result.exited_with(1)) << result.report();
		EXPECT_THAT(result.err, HasSubstr("ubusd: unable to listen on " + path));
		EXPECT_EQ(result.out, "");
	}
}
