// The bus daemon on the wire: frames in short, a daemon for each test, and clients of other users.
//
// The suites ubusd, ubusd_recorded, ubusd_access and ubusd_wire hold for the stand-in and for the real one. Those that
// begin with standin_ are about the stand-in only: its bounds, its options, and where it is better.
#pragma once
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bus.h"
#include "tests/support/system.h"

using namespace support;
using wire::received;

// The methods of the object in the recordings: "echo" with a number and a text, and "fail".
inline const std::string demo_signature =
	wire::named(wire::table, "echo", wire::named_number("n", 5) + wire::named_number("s", 3)) +
	wire::named(wire::table, "fail", "");

inline std::string objid(uint32_t id)
{
	return wire::number(wire::attr_objid, id);
}

inline std::string target(uint32_t id)
{
	return wire::number(wire::attr_target, id);
}

inline std::string method(const std::string &name)
{
	return wire::text(wire::attr_method, name);
}

inline std::string payload(const std::string &children)
{
	return wire::attribute(wire::attr_data, children);
}

inline std::string path(const std::string &name)
{
	return wire::text(wire::attr_objpath, name);
}

inline std::string signature(const std::string &children)
{
	return wire::attribute(wire::attr_signature, children);
}

inline std::string status(uint32_t value)
{
	return wire::number(wire::attr_status, value);
}

inline const std::string no_reply = wire::octet(wire::attr_no_reply, 1);
inline const std::string as_root = wire::text(wire::attr_user, "root") + wire::text(wire::attr_group, "root");

inline std::string subscribers(const std::vector<uint32_t> &ids)
{
	std::string list;
	for (uint32_t id : ids)
		list += wire::number(0, id);
	return wire::attribute(wire::attr_subscribers, list);
}

inline std::string event_call(const std::string &name, const std::string &children)
{
	return objid(wire::event_object) + method(name) + payload(children);
}

// Recorded frames with `from` in them replaced by the ids of this run.
inline std::string with_ids(std::string bytes, const std::vector<std::pair<uint32_t, uint32_t>> &ids)
{
	for (const auto &[from, to] : ids)
		for (size_t at = 0; at + 4 <= bytes.size(); at += 4)
			if (wire::number_at(bytes, at) == from)
				bytes.replace(at, 4, wire::be32(to));
	return bytes;
}

// Matches frames by all of their bytes.
inline received exactly(uint8_t type, uint32_t seq, uint32_t peer, const std::string &attributes = {})
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

inline auto final_status(const raw_client &client, uint32_t peer, uint32_t value)
{
	return answer_to(&client, wire::status, peer, status(value));
}

inline auto data_answer(const raw_client &client, const std::string &attributes)
{
	return answer_to(&client, wire::data, uint32_t{0}, attributes);
}

// The names in `frames` of looked up objects.
inline std::vector<std::string> paths_in(const std::vector<received> &frames)
{
	std::vector<std::string> paths;
	for (const received &frame : frames)
		if (frame.type() == wire::data)
			paths.push_back(frame.text(wire::attr_objpath));
	return paths;
}

// Checks that the bus still does all it should for this client.
inline void expect_good_service(raw_client *client, uint32_t object)
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

// Starts a daemon for each test, and stops it: its status must be 0, and is not if a sanitizer has found something.
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
	// The number of the daemon's descriptors. Once `client` is answered, connections that were closed before are gone.
	size_t descriptor_count(raw_client *client)
	{
		client->drain();
		return daemon_->descriptor_count();
	}
};

// A client of another user: the kernel keeps the credentials that a connection was made with.
inline raw_client connect_as(const std::string &socket_path, uid_t uid, gid_t gid)
{
	EXPECT_EQ(setegid(gid), 0) << strerror(errno);
	EXPECT_EQ(seteuid(uid), 0) << strerror(errno);
	raw_client client(socket_path);
	EXPECT_EQ(seteuid(0), 0);
	EXPECT_EQ(setegid(0), 0);
	return client;
}

using ubusd = bus_test;
using ubusd_wire = bus_test;
using standin_ubusd_wire = bus_test;

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
