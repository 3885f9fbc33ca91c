// The bus daemon: users other than root.
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

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
