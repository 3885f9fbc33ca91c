#include "lib/sock.h"

#include <netdb.h>
#include <sys/resource.h>

#include <memory>
#include <sstream>

#include "lib/log.h"
#include "lib/stream.h"
#include "tests/support/support.h"
#include "tests/support/system_calls.h"

using namespace support;

namespace
{

struct accepted {
	int fd;
	uint32_t address;
};

// A socket that keeps what it accepts, and closes what it still has.
struct test_sock : sock {
	std::vector<accepted> connections;
	std::function<void(test_sock *, int)> on_accept;
	bool open = false;

	explicit test_sock(uint8_t sock_flags = SOCK_TCP) : sock{}
	{
		flags = sock_flags;
		user = this;
		accept_cb = [](int fd, uint32_t address, void *self_pointer) {
			auto *self = static_cast<test_sock *>(self_pointer);
			self->connections.push_back({fd, address});
			if (auto copy = self->on_accept)
				copy(self, fd);
		};
	}
	~test_sock()
	{
		for (const accepted &connection : connections)
			close(connection.fd);
		if (open) {
			EXPECT_EQ(sock_close(this), 0);
		}
	}
	test_sock(const test_sock &) = delete;
	test_sock &operator=(const test_sock &) = delete;

	int listen_at(const char *host, const char *service, int backlog = 16)
	{
		int result = sock_listen(this, host, service, backlog);
		open = open || result == 0;
		return result;
	}
	int connect_to(const char *host, const char *service, int timeout_s = 0)
	{
		int result = sock_connect(this, host, service, timeout_s);
		open = open || result == 0;
		return result;
	}
	int connect_to(uint16_t remote_port, int timeout_s = 0)
	{
		return connect_to("127.0.0.1", std::to_string(remote_port).c_str(), timeout_s);
	}
	int close_now()
	{
		open = false;
		return sock_close(this);
	}
	uint16_t port() const { return local_port(io.fd); }
};

sockaddr_in name_of(int fd)
{
	sockaddr_in name{};
	socklen_t length = sizeof(name);
	EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length), 0);
	EXPECT_EQ(name.sin_family, AF_INET);
	return name;
}

int socket_option(int fd, int level, int option)
{
	int value = -1;
	socklen_t length = sizeof(value);
	EXPECT_EQ(getsockopt(fd, level, option, &value, &length), 0);
	return value;
}

timeval send_timeout(int fd)
{
	timeval value{-1, -1};
	socklen_t length = sizeof(value);
	EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &value, &length), 0);
	return value;
}

// Only in a private mount namespace: /etc has these files and one more, by which a name in hosts may have
// several addresses, and no others.
bool replace_etc(const std::vector<std::pair<std::string, std::string>> &files)
{
	if (mount("none", "/etc", "tmpfs", 0, nullptr) < 0)
		return false;
	if (!write_file("/etc/host.conf", "multi on\n"))
		return false;
	for (auto &[name, text] : files)
		if (!write_file("/etc/" + name, text))
			return false;
	return true;
}

bool same_record(const sock &a, const sock &b)
{
	return memcmp(&a, &b, sizeof(sock)) == 0;
}

} // namespace

using sock_listen_test = loop_test;
using sock_accept = loop_test;
using sock_connect_test = loop_test;
using sock_resolving = loop_test;
using sock_close_test = loop_test;

// ---- sock_listen ----

TEST_F(sock_listen_test, opens_a_watched_non_blocking_ipv4_socket)
{
	test_sock s;
	ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
	EXPECT_EQ(name_of(s.io.fd).sin_addr.s_addr, htonl(INADDR_LOOPBACK));
	EXPECT_EQ(socket_option(s.io.fd, SOL_SOCKET, SO_ACCEPTCONN), 1);
	EXPECT_EQ(socket_option(s.io.fd, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
	EXPECT_EQ(socket_option(s.io.fd, SOL_SOCKET, SO_REUSEADDR), 1);
	EXPECT_TRUE(is_nonblocking(s.io.fd));
	EXPECT_TRUE(is_closed_on_exec(s.io.fd));
	EXPECT_EQ(s.io.registered, 1);
	EXPECT_EQ(s.io.flags, EVLOOP_READ);
	EXPECT_NE(s.io.cb, nullptr);
	EXPECT_EQ(watched_descriptors(), std::set<int>{s.io.fd});
	EXPECT_EQ(s.flags, SOCK_TCP);
}

TEST_F(sock_listen_test, takes_every_address_without_a_host)
{
	test_sock s;
	ASSERT_EQ(s.listen_at(nullptr, "0"), 0);
	EXPECT_EQ(name_of(s.io.fd).sin_addr.s_addr, htonl(INADDR_ANY));
	owned_fd client = connect_to(s.port(), INADDR_LOOPBACK + 6);
	ASSERT_GE(client.get(), 0);
	ASSERT_TRUE(run_until([&] { return s.connections.size() == 1; }));
}

TEST_F(sock_listen_test, takes_the_port_asked_for)
{
	uint16_t port = free_port();
	test_sock s;
	ASSERT_EQ(s.listen_at("127.0.0.1", std::to_string(port).c_str()), 0);
	EXPECT_EQ(s.port(), port);
}

TEST_F(sock_listen_test, hands_the_backlog_to_the_kernel)
{
	for (int backlog : {1, 7, 100}) {
		test_sock s;
		ASSERT_EQ(s.listen_at("127.0.0.1", "0", backlog), 0);
		// State, the length of the queue, and what that may be.
		std::string listed = must_run("ss -Hltn sport = :" + std::to_string(s.port()));
		std::istringstream words{listed};
		std::string state;
		int length = -1, most = -1;
		words >> state >> length >> most;
		EXPECT_EQ(most, backlog) << listed;
	}
}

TEST_F(sock_listen_test, leaves_the_socket_open_on_exec_if_asked_to)
{
	test_sock s(SOCK_TCP | SOCK_KEEP_ON_EXEC);
	ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
	EXPECT_FALSE(is_closed_on_exec(s.io.fd));
	EXPECT_TRUE(is_nonblocking(s.io.fd));
}

TEST_F(sock_listen_test, refuses_any_kind_but_tcp_before_it_resolves)
{
	for (uint8_t flags : {0, SOCK_KEEP_ON_EXEC, 0xfd & ~SOCK_TCP}) {
		test_sock s(flags);
		sock before = s;
		EXPECT_EQ(s.listen_at(nullptr, nullptr), -EOPNOTSUPP); // resolving this would give -2
		EXPECT_EQ(s.connect_to(nullptr, nullptr), -EOPNOTSUPP);
		EXPECT_TRUE(same_record(s, before));
	}
}

TEST_F(sock_listen_test, at_an_address_in_use_fails_and_leaves_the_record_alone)
{
	loopback_listener other;
	test_sock s;
	s.io.fd = 12345;
	sock before = s;
	EXPECT_EQ(s.listen_at("127.0.0.1", std::to_string(other.port).c_str()), -EADDRINUSE);
	EXPECT_TRUE(same_record(s, before));
	EXPECT_EQ(watched_descriptors(), std::set<int>());
}

TEST_F(sock_listen_test, at_an_address_of_another_machine_fails)
{
	test_sock s;
	sock before = s;
	EXPECT_EQ(s.listen_at("192.0.2.1", "0"), -EADDRNOTAVAIL);
	EXPECT_TRUE(same_record(s, before));
}

TEST_F(sock_listen_test, takes_an_address_that_a_former_listener_left_in_time_wait)
{
	test_sock first;
	ASSERT_EQ(first.listen_at("127.0.0.1", "0"), 0);
	uint16_t port = first.port();
	owned_fd client = connect_to(port);
	ASSERT_TRUE(run_until([&] { return first.connections.size() == 1; }));
	// The end that closes first keeps the address.
	close(first.connections[0].fd);
	first.connections.clear();
	EXPECT_EQ(read_all(client.get()), "");
	client.reset();
	ASSERT_EQ(first.close_now(), 0);

	owned_fd plain{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
	sockaddr_in name = loopback_address(port);
	ASSERT_EQ(bind(plain.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), -1);
	ASSERT_EQ(errno, EADDRINUSE) << "the address is free, so this would show nothing";

	test_sock second;
	EXPECT_EQ(second.listen_at("127.0.0.1", std::to_string(port).c_str()), 0);
}

TEST_F(sock_listen_test, returns_the_positive_errno_if_no_socket_can_be_created)
{
	expect_in_child([] {
		test_sock s;
		sock before = s;
		rlimit limit{};
		getrlimit(RLIMIT_NOFILE, &limit);
		rlim_t usual = limit.rlim_cur;
		limit.rlim_cur = static_cast<rlim_t>(*open_descriptors().rbegin()) + 1;
		std::vector<owned_fd> fillers;
		setrlimit(RLIMIT_NOFILE, &limit);
		do
			fillers.emplace_back(dup(1));
		while (fillers.back().get() >= 0);
		int listening = s.listen_at("127.0.0.1", "0");
		int connecting = s.connect_to("127.0.0.1", "1", 1);
		limit.rlim_cur = usual;
		setrlimit(RLIMIT_NOFILE, &limit);
		EXPECT_EQ(listening, EMFILE);
		EXPECT_EQ(connecting, EMFILE);
		EXPECT_TRUE(same_record(s, before));
	});
}

TEST_F(sock_listen_test, logs_nothing_when_it_fails)
{
	child_result result = run_child([] {
		log_open(LOG_DEST_STDIO, 0, nullptr);
		test_sock s;
		EXPECT_EQ(s.listen_at("192.0.2.1", "0"), -EADDRNOTAVAIL);
		EXPECT_EQ(s.connect_to(free_port()), -ECONNREFUSED);
		EXPECT_EQ(s.connect_to(nullptr, nullptr), -2);
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out + result.err, "");
}

TEST_F(sock_listen_test, does_not_look_whether_the_loop_takes_the_socket)
{
	expect_in_child([] {
		close(epoll_descriptor());
		test_sock s;
		ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
		EXPECT_EQ(s.io.registered, 0);
		EXPECT_GE(connect_to(s.port()).get(), 0);
	});
}

TEST_F(sock_listen_test, can_be_repeated_with_a_closed_record)
{
	test_sock s;
	for (int round = 0; round < 3; ++round) {
		ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
		owned_fd client = connect_to(s.port());
		ASSERT_TRUE(run_until([&] { return s.connections.size() == 1; }));
		close(s.connections[0].fd);
		s.connections.clear();
		EXPECT_EQ(s.close_now(), 0);
	}
}

// ---- accepting ----

TEST_F(sock_accept, hands_over_a_non_blocking_descriptor_the_address_in_network_order_and_the_user_pointer)
{
	test_sock s;
	ASSERT_EQ(s.listen_at(nullptr, "0"), 0);
	owned_fd client{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
	sockaddr_in source = loopback_address(0, 0x7f010203), target = loopback_address(s.port());
	ASSERT_EQ(bind(client.get(), reinterpret_cast<sockaddr *>(&source), sizeof(source)), 0);
	ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr *>(&target), sizeof(target)), 0);
	ASSERT_TRUE(run_until([&] { return s.connections.size() == 1; }));

	auto [fd, address] = s.connections[0];
	unsigned char bytes[4];
	memcpy(bytes, &address, sizeof(bytes));
	EXPECT_EQ(bytes[0], 127);
	EXPECT_EQ(bytes[1], 1);
	EXPECT_EQ(bytes[2], 2);
	EXPECT_EQ(bytes[3], 3);
	EXPECT_TRUE(is_nonblocking(fd));
	EXPECT_TRUE(is_closed_on_exec(fd));
	EXPECT_NE(fd, s.io.fd);
	ASSERT_TRUE(write_all(client.get(), "hello"));
	ASSERT_TRUE(wait_for(fd, POLLIN));
	EXPECT_EQ(read_available(fd), "hello");
}

TEST_F(sock_accept, leaves_the_descriptor_open_on_exec_if_asked_to)
{
	test_sock s(SOCK_TCP | SOCK_KEEP_ON_EXEC);
	ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
	owned_fd client = connect_to(s.port());
	ASSERT_TRUE(run_until([&] { return s.connections.size() == 1; }));
	EXPECT_FALSE(is_closed_on_exec(s.connections[0].fd));
	EXPECT_TRUE(is_nonblocking(s.connections[0].fd));
}

TEST_F(sock_accept, takes_one_connection_a_pass)
{
	test_sock s;
	ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
	owned_fd first = connect_to(s.port()), second = connect_to(s.port());
	run_pass();
	EXPECT_EQ(s.connections.size(), 1u);
	run_pass();
	EXPECT_EQ(s.connections.size(), 2u);
	run_passes(2);
	EXPECT_EQ(s.connections.size(), 2u);
}

TEST_F(sock_accept, takes_many_connections)
{
	test_sock s;
	ASSERT_EQ(s.listen_at("127.0.0.1", "0", 64), 0);
	std::vector<owned_fd> clients;
	for (int count = 0; count < 50; ++count)
		clients.push_back(connect_to(s.port()));
	ASSERT_TRUE(run_until([&] { return s.connections.size() == clients.size(); }));
}

TEST_F(sock_accept, without_callback_leaves_the_descriptor_open)
{
	test_sock s;
	s.accept_cb = nullptr;
	ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
	owned_fd client = connect_to(s.port());
	std::set<int> before = open_descriptors();
	run_passes(3);
	std::vector<int> opened;
	for (int fd : open_descriptors())
		if (!before.count(fd))
			opened.push_back(fd);
	ASSERT_EQ(opened.size(), 1u);
	owned_fd ours{opened[0]};
	EXPECT_TRUE(is_nonblocking(ours.get()));
	ASSERT_TRUE(write_all(ours.get(), "alive"));
	EXPECT_TRUE(wait_for(client.get(), POLLIN));
	EXPECT_EQ(read_available(client.get()), "alive");
}

TEST_F(sock_accept, uses_a_callback_set_after_listening)
{
	test_sock s;
	auto callback = s.accept_cb;
	s.accept_cb = nullptr;
	ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
	s.accept_cb = callback;
	owned_fd client = connect_to(s.port());
	ASSERT_TRUE(run_until([&] { return s.connections.size() == 1; }));
}

TEST_F(sock_accept, tries_again_when_descriptors_have_run_out)
{
	child_result result = run_child([] {
		log_open(LOG_DEST_STDIO, 0, nullptr);
		test_sock s;
		ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
		owned_fd client = connect_to(s.port());
		rlimit limit{};
		getrlimit(RLIMIT_NOFILE, &limit);
		rlimit none{0, limit.rlim_max};
		setrlimit(RLIMIT_NOFILE, &none);
		run_passes(5);
		EXPECT_TRUE(s.connections.empty());
		setrlimit(RLIMIT_NOFILE, &limit);
		EXPECT_TRUE(run_until([&] { return s.connections.size() == 1; }));
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.out + result.err, "");
}

TEST_F(sock_accept, does_not_block_when_the_connection_has_gone_from_the_queue)
{
	test_sock s;
	ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
	owned_fd client = connect_to(s.port());
	ASSERT_TRUE(wait_for(s.io.fd, POLLIN));
	owned_fd taken{accept4(s.io.fd, nullptr, nullptr, SOCK_CLOEXEC)};
	ASSERT_GE(taken.get(), 0);
	s.io.cb(&s.io, EVLOOP_READ); // as dispatched for an event that is no longer true
	EXPECT_TRUE(s.connections.empty());
}

TEST_F(sock_accept, lets_the_callback_close_the_listener_and_release_its_record)
{
	auto *s = new test_sock;
	ASSERT_EQ(s->listen_at("127.0.0.1", "0"), 0);
	int calls = 0;
	s->on_accept = [&calls](test_sock *self, int) {
		++calls;
		EXPECT_EQ(self->close_now(), 0);
		delete self;
	};
	uint16_t port = s->port();
	owned_fd first = connect_to(port), second = connect_to(port);
	run_passes(4);
	EXPECT_EQ(calls, 1);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
	EXPECT_LT(connect_to(port).get(), 0);
}

TEST_F(sock_accept, serves_streams_on_both_ends)
{
	test_sock server, client;
	ASSERT_EQ(server.listen_at("127.0.0.1", "0"), 0);
	ASSERT_EQ(client.connect_to(server.port()), 0);
	ASSERT_TRUE(run_until([&] { return server.connections.size() == 1; }));
	stream near{}, far{};
	ASSERT_EQ(stream_init(&near, client.io.fd), 0);
	ASSERT_EQ(stream_init(&far, server.connections[0].fd), 0);
	far.notify_read = [](stream *s) {
		int32_t length = 0;
		const char *bytes = buffer_get_data(s->rx, &length);
		EXPECT_EQ(stream_printf(s, "<%.*s>", length, bytes), length + 2);
		buffer_consume(s->rx, length);
	};
	EXPECT_EQ(stream_write(&near, "echo", 4), 4);
	ASSERT_TRUE(run_until([&] { return near.rx->length == 6; }));
	EXPECT_EQ(std::string(near.rx->data, 6), "<echo>");
	stream_cleanup(&near);
	stream_cleanup(&far);
}

// ---- sock_connect ----

TEST_F(sock_connect_test, opens_a_blocking_socket_that_the_loop_does_not_watch)
{
	loopback_listener listener;
	for (int timeout_s : {0, -5, 1, 30}) {
		test_sock s;
		ASSERT_EQ(s.connect_to(listener.port, timeout_s), 0);
		owned_fd far = listener.accept_one();
		EXPECT_FALSE(is_nonblocking(s.io.fd));
		EXPECT_TRUE(is_closed_on_exec(s.io.fd));
		EXPECT_EQ(s.io.registered, 0);
		EXPECT_EQ(s.io.cb, nullptr);
		EXPECT_EQ(watched_descriptors(), std::set<int>());
		EXPECT_EQ(name_of(s.io.fd).sin_addr.s_addr, htonl(INADDR_LOOPBACK));
		ASSERT_TRUE(write_all(s.io.fd, "hello"));
		ASSERT_TRUE(wait_for(far.get(), POLLIN));
		EXPECT_EQ(read_available(far.get()), "hello");
	}
}

TEST_F(sock_connect_test, leaves_no_time_limit_on_the_connected_socket)
{
	loopback_listener listener;
	test_sock s;
	ASSERT_EQ(s.connect_to(listener.port, 7), 0);
	EXPECT_EQ(send_timeout(s.io.fd).tv_sec, 0);
	EXPECT_EQ(send_timeout(s.io.fd).tv_usec, 0);
}

TEST_F(sock_connect_test, leaves_the_socket_open_on_exec_if_asked_to)
{
	loopback_listener listener;
	test_sock s(SOCK_TCP | SOCK_KEEP_ON_EXEC);
	ASSERT_EQ(s.connect_to(listener.port), 0);
	EXPECT_FALSE(is_closed_on_exec(s.io.fd));
}

TEST_F(sock_connect_test, reaches_this_machine_without_a_host)
{
	loopback_listener listener;
	test_sock s;
	ASSERT_EQ(s.connect_to(nullptr, std::to_string(listener.port).c_str()), 0);
	EXPECT_GE(listener.accept_one().get(), 0);
}

TEST_F(sock_connect_test, to_a_closed_port_is_refused_with_and_without_a_limit)
{
	uint16_t port = free_port();
	for (int timeout_s : {0, -1, 2}) {
		test_sock s;
		s.io.fd = 12345;
		sock before = s;
		EXPECT_EQ(s.connect_to(port, timeout_s), -ECONNREFUSED);
		EXPECT_TRUE(same_record(s, before));
	}
}

TEST_F(sock_connect_test, to_a_listener_that_does_not_answer_times_out)
{
	full_listener full;
	test_sock s;
	s.io.fd = 12345;
	sock before = s;
	int64_t start_ms = now_ms();
	EXPECT_EQ(s.connect_to(full.listener.port, 1), -ETIMEDOUT);
	int64_t elapsed_ms = now_ms() - start_ms;
	EXPECT_GE(elapsed_ms, 900);
	EXPECT_LT(elapsed_ms, 20'000);
	EXPECT_TRUE(same_record(s, before));
}

TEST_F(sock_connect_test, without_a_route_fails_at_once)
{
	expect_in_child([] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		test_sock s;
		EXPECT_EQ(s.connect_to("192.0.2.1", "80"), -ENETUNREACH);
		EXPECT_EQ(s.connect_to("192.0.2.1", "80", 5), -ENETUNREACH);
	});
}

TEST_F(sock_connect_test, after_a_failure_can_be_tried_again_with_the_same_record)
{
	loopback_listener listener;
	test_sock s;
	EXPECT_EQ(s.connect_to(free_port()), -ECONNREFUSED);
	EXPECT_EQ(s.connect_to(listener.port), 0);
}

// ---- resolving ----

TEST_F(sock_resolving, of_an_unknown_name_returns_the_resolvers_own_number)
{
	expect_in_child([] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		ASSERT_TRUE(replace_etc(
			{{"hosts", "127.0.0.1 localhost\n"}, {"nsswitch.conf", "hosts: files\n"}}));
		test_sock s;
		sock before = s;
		EXPECT_EQ(s.connect_to("no-such-host.test", "80"), -2);
		EXPECT_EQ(s.listen_at("no-such-host.test", "80"), -2);
		EXPECT_TRUE(same_record(s, before));
	});
}

TEST_F(sock_resolving, of_neither_host_nor_service_returns_the_resolvers_own_number)
{
	test_sock s;
	EXPECT_EQ(s.listen_at(nullptr, nullptr), -2);
	EXPECT_EQ(s.connect_to(nullptr, nullptr, 1), -2);
}

TEST_F(sock_resolving, without_memory_is_out_of_memory)
{
	test_sock s;
	sock before = s;
	auto resolver = system_calls::getaddrinfo.replace([](auto...) { return EAI_MEMORY; });
	EXPECT_EQ(s.listen_at("127.0.0.1", "0"), -ENOMEM);
	EXPECT_EQ(s.connect_to("127.0.0.1", "1"), -ENOMEM);
	EXPECT_TRUE(same_record(s, before));
}

TEST_F(sock_resolving, is_not_tried_without_the_flag_for_tcp)
{
	test_sock s(0);
	int calls = 0;
	auto resolver = system_calls::getaddrinfo.replace([&](auto...) { return ++calls, EAI_FAIL; });
	EXPECT_EQ(s.listen_at("127.0.0.1", "0"), -EOPNOTSUPP);
	EXPECT_EQ(s.connect_to("127.0.0.1", "1"), -EOPNOTSUPP);
	EXPECT_EQ(calls, 0);
}

TEST_F(sock_resolving, that_fails_for_another_reason_is_invalid)
{
	test_sock s;
	sock before = s;
	EXPECT_EQ(s.listen_at("127.0.0.1", "no-such-service-here"), -EINVAL);
	EXPECT_EQ(s.connect_to("127.0.0.1", "no-such-service-here"), -EINVAL);
	EXPECT_TRUE(same_record(s, before));
}

TEST_F(sock_resolving, knows_ipv4_only)
{
	test_sock s;
	sock before = s;
	EXPECT_EQ(s.listen_at("::1", "0"), -EINVAL);
	EXPECT_EQ(s.connect_to("::1", "80"), -EINVAL);
	EXPECT_TRUE(same_record(s, before));
}

TEST_F(sock_resolving, without_an_answer_from_the_name_server_is_invalid)
{
	expect_in_child([] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		ASSERT_TRUE(replace_etc({{"hosts", ""}, {"nsswitch.conf", "hosts: dns\n"},
			{"resolv.conf", "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n"}}));
		test_sock s;
		EXPECT_EQ(s.connect_to("host.test", "80"), -EINVAL);
	});
}

TEST_F(sock_resolving, takes_names_of_hosts_and_services)
{
	expect_in_child([] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		ASSERT_TRUE(replace_etc({{"hosts", "127.3.2.1 station.test\n"},
			{"nsswitch.conf", "hosts: files\nservices: files\n"},
			{"services", "stationd 7788/tcp\n"}}));
		test_sock server, client;
		ASSERT_EQ(server.listen_at("station.test", "stationd"), 0);
		EXPECT_EQ(server.port(), 7788);
		EXPECT_EQ(name_of(server.io.fd).sin_addr.s_addr, htonl(0x7f030201));
		ASSERT_EQ(client.connect_to("station.test", "stationd", 5), 0);
		EXPECT_TRUE(run_until([&] { return server.connections.size() == 1; }));
	});
}

TEST_F(sock_resolving, tries_the_next_address_of_a_name_when_one_fails)
{
	expect_in_child([] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		ASSERT_TRUE(replace_etc({{"hosts", "127.0.0.7 both.test\n127.0.0.8 both.test\n"},
			{"nsswitch.conf", "hosts: files\n"}}));
		// Whichever comes first in the resolver's order, one of the two rounds has it fail.
		for (const char *host : {"127.0.0.7", "127.0.0.8"}) {
			test_sock server, client;
			ASSERT_EQ(server.listen_at(host, "7788"), 0);
			EXPECT_EQ(client.connect_to("both.test", "7788"), 0);
			EXPECT_TRUE(run_until([&] { return server.connections.size() == 1; }));
			test_sock second;
			EXPECT_EQ(second.listen_at("both.test", "7788"), 0);
			EXPECT_NE(
				name_of(second.io.fd).sin_addr.s_addr, name_of(server.io.fd).sin_addr.s_addr);
		}
		test_sock nobody;
		EXPECT_EQ(nobody.connect_to("both.test", "7799"), -ECONNREFUSED);
	});
}

TEST_F(sock_resolving, reports_the_failure_of_the_last_address_tried)
{
	expect_in_child([] {
		ASSERT_TRUE(enter_private_namespaces()) << strerror(errno);
		// The resolver puts an address without a route last. Nothing listens at the other.
		ASSERT_TRUE(replace_etc({{"hosts", "127.0.0.7 mixed.test\n192.0.2.1 mixed.test\n"},
			{"nsswitch.conf", "hosts: files\n"}}));
		test_sock s;
		EXPECT_EQ(s.connect_to("mixed.test", "7799"), -ENETUNREACH);
		EXPECT_EQ(s.listen_at("mixed.test", "7799"), 0);
		EXPECT_EQ(name_of(s.io.fd).sin_addr.s_addr, htonl(0x7f000007));
	});
}

// ---- sock_close ----

TEST_F(sock_close_test, stops_watching_and_closes_the_listener)
{
	test_sock s;
	ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
	uint16_t port = s.port();
	int fd = s.io.fd;
	EXPECT_EQ(s.close_now(), 0);
	EXPECT_FALSE(is_open(fd));
	EXPECT_EQ(s.io.registered, 0);
	EXPECT_EQ(watched_descriptors(), std::set<int>());
	EXPECT_LT(connect_to(port).get(), 0);
}

TEST_F(sock_close_test, closes_a_connected_socket)
{
	loopback_listener listener;
	test_sock s;
	ASSERT_EQ(s.connect_to(listener.port), 0);
	owned_fd far = listener.accept_one();
	int fd = s.io.fd;
	EXPECT_EQ(s.close_now(), 0);
	EXPECT_FALSE(is_open(fd));
	EXPECT_EQ(read_all(far.get()), "");
}

TEST_F(sock_close_test, returns_the_failure_of_close)
{
	sock s{};
	s.io.fd = -1;
	errno = 0;
	EXPECT_EQ(sock_close(&s), -1);
	EXPECT_EQ(errno, EBADF);
}

TEST_F(sock_close_test, leaves_accepted_connections_open)
{
	test_sock s;
	ASSERT_EQ(s.listen_at("127.0.0.1", "0"), 0);
	owned_fd client = connect_to(s.port());
	ASSERT_TRUE(run_until([&] { return s.connections.size() == 1; }));
	EXPECT_EQ(s.close_now(), 0);
	ASSERT_TRUE(write_all(client.get(), "x"));
	ASSERT_TRUE(wait_for(s.connections[0].fd, POLLIN));
	EXPECT_EQ(read_available(s.connections[0].fd), "x");
}

// Ten events are fetched; evloop_io_delete on its own reaches only the first of those that wait. Released
// records are on the heap, so that a sanitizer sees any look at them.
TEST_F(sock_close_test, of_listeners_whose_events_wait_anywhere_in_the_batch_prevents_their_dispatch)
{
	for (size_t dispatched = 1; dispatched < EVLOOP_MAX_EVENTS; ++dispatched) {
		std::vector<std::unique_ptr<test_sock>> listeners;
		std::vector<owned_fd> clients;
		size_t accepted_count = 0;
		for (size_t index = 0; index < EVLOOP_MAX_EVENTS; ++index) {
			listeners.push_back(std::make_unique<test_sock>());
			listeners.back()->on_accept = [&accepted_count](
							      test_sock *, int) { ++accepted_count; };
			ASSERT_EQ(listeners.back()->listen_at("127.0.0.1", "0"), 0);
			clients.push_back(connect_to(listeners.back()->port()));
		}
		for (size_t turn = 0; turn < dispatched; ++turn)
			evloop_handle_ios(0);
		ASSERT_EQ(accepted_count, dispatched);
		for (size_t index = EVLOOP_MAX_EVENTS; index-- > dispatched;)
			listeners[index].reset();
		run_passes(EVLOOP_MAX_EVENTS);
		EXPECT_EQ(accepted_count, dispatched);
	}
}

TEST_F(sock_close_test, of_another_listener_from_the_accept_callback_prevents_its_dispatch)
{
	auto first = std::make_unique<test_sock>(), second = std::make_unique<test_sock>();
	ASSERT_EQ(first->listen_at("127.0.0.1", "0"), 0);
	ASSERT_EQ(second->listen_at("127.0.0.1", "0"), 0);
	owned_fd a = connect_to(first->port()), b = connect_to(second->port());
	first->on_accept = [&second](test_sock *, int) { second.reset(); }; // the last of two: out of reach
	run_passes(3);
	EXPECT_EQ(first->connections.size(), 1u);
	EXPECT_EQ(second, nullptr);
}
