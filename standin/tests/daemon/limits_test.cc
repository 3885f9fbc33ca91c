// The bus daemon of the stand-in: its bounds, what the protocol leaves open, and the process.
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon.h"

using testing::ElementsAre;
using testing::HasSubstr;

// ---- Bounds, and what the protocol leaves open ----

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

// ---- The process ----

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
