// The bus daemon: recorded exchanges, byte by byte.
#include <unistd.h>

#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon.h"

using testing::IsEmpty;

// A owns "demo"; B looks it up, calls it, and subscribes to it.
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
