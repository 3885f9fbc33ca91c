// Results whose numbers are the target's own: MIPS numbers most of errno from 35 on differently. They are checked as
// numbers, as daemons on the board compare and log them. Built for MIPS only.
#include <gtest/gtest.h>

#include "lib/caldata.h"
#include "lib/internal/abi.h"
#include "lib/sock.h"
#include "lib/ubus.h"
#include "tests/support/board.h"
#include "tests/support/ubus.h"

using namespace board_support;

static_assert(abi_is_targets, "the records' layout is asserted for this machine");
static_assert(EOPNOTSUPP == 122 && ETIMEDOUT == 145 && EINPROGRESS == 150);

namespace
{

class target_sock : public loop_test
{
protected:
	sock s{};

	void SetUp() override
	{
		loop_test::SetUp();
		s.flags = SOCK_TCP;
	}
	int listen_at(const char *host, uint16_t port)
	{
		return sock_listen(&s, host, std::to_string(port).c_str(), 1);
	}
	int connect_to(const char *host, uint16_t port, int timeout_s)
	{
		return sock_connect(&s, host, std::to_string(port).c_str(), timeout_s);
	}
};

TEST_F(target_sock, of_another_kind_than_tcp_is_minus_122)
{
	s.flags = 0;
	EXPECT_EQ(listen_at("127.0.0.1", 0), -122); // EOPNOTSUPP
	EXPECT_EQ(connect_to("127.0.0.1", 1, 0), -122);
}

TEST_F(target_sock, that_does_not_connect_in_time_is_minus_145)
{
	full_listener full;
	EXPECT_EQ(connect_to("127.0.0.1", full.listener.port, 1), -145); // ETIMEDOUT
}

TEST_F(target_sock, that_is_refused_is_minus_146)
{
	EXPECT_EQ(connect_to("127.0.0.1", free_port(), 0), -146); // ECONNREFUSED
	EXPECT_EQ(connect_to("127.0.0.1", free_port(), 2), -146);
}

TEST_F(target_sock, without_a_way_to_the_network_is_minus_128)
{
	in_private_network([this] {
		EXPECT_EQ(connect_to("192.0.2.1", 80, 0), -128); // ENETUNREACH
		EXPECT_EQ(connect_to("192.0.2.1", 80, 2), -128);
	});
}

TEST_F(target_sock, at_a_port_in_use_is_minus_125)
{
	loopback_listener other;
	EXPECT_EQ(listen_at("127.0.0.1", other.port), -125); // EADDRINUSE
}

TEST_F(target_sock, at_an_address_of_another_machine_is_minus_126)
{
	in_private_network([this] { EXPECT_EQ(listen_at("192.0.2.1", 0), -126); }); // EADDRNOTAVAIL
}

TEST(target_caldata, to_a_link_to_itself_is_minus_90_in_the_log_too)
{
	on_bare_board([] {
		make_flash("flash");
		require(symlink("loop", "/lib/firmware/loop") == 0, "a link");
		EXPECT_EQ(caldata_export("loop", "EEPROM", 0, 5), -90); // ELOOP
		EXPECT_EQ(messages, errors({"caldata: unable to open /lib/firmware/loop: err=-90\n"}));
	});
}

TEST(target_caldata, to_a_name_that_is_too_long_is_minus_78)
{
	on_bare_board([] {
		make_flash("flash");
		EXPECT_EQ(caldata_export(std::string(256, 'x').c_str(), "EEPROM", 0, 5), -78); // ENAMETOOLONG
	});
}

class target_ubus : public bus_test
{
protected:
	static inline int (*call)(ubus_retry_request *);
	static inline int called;
	ubus_retry_request request{};

	// Invokes the request, and calls `inside` from its prepare_cb.
	int invoke_with(int (*inside)(ubus_retry_request *))
	{
		static ubus_retry_request *current;
		current = &request;
		call = inside;
		auto prepare = [](blob_buf *) {
			called = call(current);
			return 0;
		};
		EXPECT_EQ(ubus_retry_request_init(&request, &client.ctx, "go", "owner", prepare, nullptr), 0);
		object_server server(bus->path());
		server.add("owner");
		int result = ubus_retry_request_invoke(&request);
		ubus_retry_request_abort(&request);
		return result;
	}
};

TEST_F(target_ubus, invoked_inside_its_own_attempt_is_minus_149)
{
	EXPECT_EQ(invoke_with(ubus_retry_request_invoke), 0);
	EXPECT_EQ(called, -149); // EALREADY
}

TEST_F(target_ubus, aborted_inside_its_own_attempt_is_minus_158)
{
	EXPECT_EQ(invoke_with(ubus_retry_request_abort), -158); // ECANCELED
}

} // namespace
