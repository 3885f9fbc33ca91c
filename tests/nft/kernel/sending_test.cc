// How nft sends a message to the kernel and takes its answers: what the callback sees, forged answers, full
// queues, descriptors, and every step that fails.
#include "tests/nft/kernel/kernel.h"

#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <linux/netfilter/nfnetlink.h>
#include <stddef.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <optional>

#include <gmock/gmock.h>

#include "tests/support/system_calls.h"

using namespace kernel_support;

namespace
{

// The calls on the way of a message, counted, and made to fail in tests of what happens then.
struct {
	int bind_error, getsockname_error, sendto_error, select_error, recvmsg_error; // 0: the real thing
	int sent, received, options, waiting; // waiting: calls of select that may wait
	void (*after_bind)(int fd), (*before_send)(int fd);
	bool (*refuses_option)(int level, int option);
} calls;

template <typename R>
R failed(int error)
{
	errno = error;
	return -1;
}

auto watched_bind = system_calls::bind.replace([](int fd, const sockaddr *name, socklen_t length) {
	if (calls.bind_error)
		return failed<int>(calls.bind_error);
	int result = system_calls::bind.next(fd, name, length);
	if (auto hook = std::exchange(calls.after_bind, nullptr))
		hook(fd);
	return result;
});

auto watched_setsockopt = system_calls::setsockopt.replace(
	[](int fd, int level, int option, const void *value, socklen_t length) {
		calls.options++;
		return calls.refuses_option && calls.refuses_option(level, option)
			       ? failed<int>(EPERM)
			       : system_calls::setsockopt.next(fd, level, option, value, length);
	});

auto watched_getsockname = system_calls::getsockname.replace([](auto... arguments) {
	return calls.getsockname_error ? failed<int>(calls.getsockname_error)
				       : system_calls::getsockname.next(arguments...);
});

auto watched_sendto = system_calls::sendto.replace([](int fd, auto... arguments) {
	calls.sent++;
	if (auto hook = std::exchange(calls.before_send, nullptr))
		hook(fd);
	return calls.sendto_error ? failed<ssize_t>(calls.sendto_error)
				  : system_calls::sendto.next(fd, arguments...);
});

auto watched_select = system_calls::select.replace(
	[](int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout) {
		calls.waiting += !timeout || timeout->tv_sec != 0 || timeout->tv_usec != 0;
		return calls.select_error
			       ? failed<int>(calls.select_error)
			       : system_calls::select.next(count, readable, writable, exceptional, timeout);
	});

auto watched_recvmsg = system_calls::recvmsg.replace([](int fd, msghdr *message, int flags) {
	calls.received++;
	return calls.recvmsg_error ? failed<ssize_t>(calls.recvmsg_error)
				   : system_calls::recvmsg.next(fd, message, flags);
});

// ---- Sending ----

// A message of its own, outside of any batch: asks for all rules.
struct rules_request {
	alignas(nlmsghdr) char bytes[64];
	size_t length;

	rules_request()
		: length(nftnl_nlmsg_build_hdr(bytes, NFT_MSG_GETRULE, NFPROTO_UNSPEC, NLM_F_DUMP, 1)
				  ->nlmsg_len)
	{
	}
};

struct answers {
	int count = 0;
	int last_at = INT32_MAX; // the answer that ends it, by `last_result`
	int last_result = MNL_CB_OK;
	int last_errno = 0;

	static int take(const nlmsghdr *header, void *self_pointer)
	{
		auto *self = static_cast<answers *>(self_pointer);
		EXPECT_EQ(header->nlmsg_type & 0xff, NFT_MSG_NEWRULE);
		if (++self->count < self->last_at)
			return MNL_CB_OK;
		errno = self->last_errno;
		return self->last_result;
	}
};

void make_rules(uint32_t count)
{
	make_table_and_chain();
	for (uint32_t done = 0; done < count; done += 100) {
		transaction change;
		for (uint32_t mark = 0; mark < std::min(count - done, 100U); mark++)
			change.accept_mark(inet, mark);
		ASSERT_EQ(change.send(), 0);
	}
}

TEST(nft_sending, callback_sees_every_answer_of_many_datagrams)
{
	in_nft_network([] {
		make_rules(500);
		rules_request request;
		answers seen;
		calls.received = 0;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, answers::take, &seen), 0);
		EXPECT_EQ(seen.count, 500);
		EXPECT_GT(calls.received, 5);
	});
}

TEST(nft_sending, error_of_the_callback_is_the_result)
{
	in_nft_network([] {
		make_rules(100);
		rules_request request;
		answers seen{0, 3, MNL_CB_ERROR, EDOM};
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, answers::take, &seen), -EDOM);
		EXPECT_EQ(seen.count, 3);
	});
}

TEST(nft_sending, callback_that_stops_skips_the_rest_of_a_datagram_without_an_error)
{
	in_nft_network([] {
		make_rules(100);
		rules_request request;
		answers seen{0, 1, MNL_CB_STOP, 0};
		calls.received = 0;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, answers::take, &seen), 0);
		EXPECT_EQ(seen.count, calls.received - 1)
			<< "one of each datagram, but the last, which has none";
	});
}

TEST(nft_sending, callback_is_not_asked_about_acknowledgements)
{
	in_nft_network([] {
		transaction change;
		change.table(inet).chain(inet).finish();
		answers seen;
		EXPECT_EQ(kvnft_send_msg_cb(
				  mnl_nlmsg_batch_head(change.get()), change.bytes(), answers::take, &seen),
			0);
		EXPECT_EQ(seen.count, 0);
		EXPECT_EQ(ruleset().size(), 2U);
	});
}

TEST(nft_sending, answers_without_a_callback_are_let_go)
{
	in_nft_network([] {
		make_rules(300);
		rules_request request;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, nullptr, nullptr), 0);
	});
}

TEST(nft_sending, garbage_gets_no_answer)
{
	in_nft_network([] {
		char bytes[100];
		memset(bytes, 0xff, sizeof(bytes));
		EXPECT_EQ(kvnft_send_msg_cb(bytes, sizeof(bytes), nullptr, nullptr), 0);
		EXPECT_EQ(kvnft_send_msg_cb(bytes, 3, nullptr, nullptr), 0);
	});
}

// Elements of a set that is not there, in a message longer than what is received at once.
transaction &add_missing_elements(transaction &change)
{
	owned_set missing = make_set(inet, 0, type_ipv4);
	for (uint32_t address = 0; address < 1000; address++)
		EXPECT_EQ(kvnft_build_set_add_elem(missing.get(), &address, 4, -1), 0);
	size_t before = change.bytes();
	change.elements_of(missing);
	EXPECT_GT(change.bytes() - before, 4096U);
	return change;
}

TEST(nft_sending, refusal_of_a_message_of_more_than_4096_bytes_is_the_kernels)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(inet).send(), 0);
		transaction change;
		EXPECT_EQ(add_missing_elements(change).send(), -ENOENT);
	});
}

// Kernels before 4.3 repeat the whole message in their answer.
TEST(nft_sending, refusal_of_a_message_of_more_than_4096_bytes_that_is_repeated_has_no_space)
{
	in_nft_network([] {
		ASSERT_EQ(transaction().table(inet).send(), 0);
		calls.refuses_option = [](int level, int) { return level == SOL_NETLINK; };
		transaction change;
		EXPECT_EQ(add_missing_elements(change).send(), -ENOSPC);
		EXPECT_EQ(transaction().del_table(inet, "missing").send(), -ENOENT);
		EXPECT_EQ(transaction().table(ip).send(), 0);
	});
}

// ---- Answers that are not the kernel's ----

sockaddr_nl address_of(int fd)
{
	sockaddr_nl name{};
	socklen_t length = sizeof(name);
	EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length), 0);
	return name;
}

std::string forged_bytes;
bool forged_for_its_port;

// Puts a datagram into the queue of `fd` before the kernel's answers, as a privileged process can.
void forge(int fd)
{
	owned_fd forger{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)};
	sockaddr_nl name = address_of(fd);
	if (forged_for_its_port && forged_bytes.size() >= sizeof(nlmsghdr)) {
		nlmsghdr header;
		memcpy(&header, forged_bytes.data(), sizeof(header));
		header.nlmsg_pid = name.nl_pid;
		memcpy(forged_bytes.data(), &header, sizeof(header));
	}
	EXPECT_EQ(sendto(forger.get(), forged_bytes.data(), forged_bytes.size(), 0,
			  reinterpret_cast<sockaddr *>(&name), sizeof(name)),
		static_cast<ssize_t>(forged_bytes.size()))
		<< strerror(errno);
}

// The result of sending when this datagram comes before the kernel's own answer.
int result_behind(const std::string &bytes, bool for_its_port = true)
{
	forged_bytes = bytes;
	forged_for_its_port = for_its_port;
	calls.before_send = forge;
	return transaction().table(inet).send();
}

// A message with `length_claimed` in its header and `payload_bytes` zero bytes after it.
std::string message_bytes(uint16_t type, uint32_t length_claimed, size_t payload_bytes, uint16_t flags = 0)
{
	nlmsghdr header{length_claimed, type, flags, 1, 0};
	return std::string(reinterpret_cast<char *>(&header), sizeof(header)) +
	       std::string(payload_bytes, '\0');
}

TEST(nft_sending, forged_bytes_that_are_no_message_are_let_go)
{
	in_nft_network([] {
		EXPECT_EQ(result_behind(std::string(1, 'x')), 0);
		EXPECT_EQ(result_behind(std::string(15, '\xff')), 0);
		EXPECT_EQ(result_behind(message_bytes(NLMSG_DONE, 0, 20)), 0) << "no length";
		EXPECT_EQ(result_behind(message_bytes(NLMSG_DONE, 15, 20)), 0) << "less than a header";
		EXPECT_EQ(result_behind(message_bytes(NLMSG_ERROR, 1000, 20)), 0) << "more than there is";
		EXPECT_EQ(result_behind(message_bytes(NLMSG_ERROR, UINT32_MAX, 20)), 0);
		EXPECT_EQ(result_behind(message_bytes(NLMSG_NOOP, 16, 0)), 0);
	});
}

TEST(nft_sending, forged_error_without_room_for_one_is_a_bad_message)
{
	in_nft_network([] { EXPECT_EQ(result_behind(message_bytes(NLMSG_ERROR, 20, 4)), -EBADMSG); });
}

TEST(nft_sending, answer_for_another_port_is_not_taken)
{
	in_nft_network([] {
		EXPECT_EQ(result_behind(message_bytes(NLMSG_NOOP, 16, 0), false), 0) << "port 0: for all";
	});
	in_nft_network([] {
		std::string bytes = message_bytes(NLMSG_NOOP, 16, 0);
		const uint32_t another_port = 0x7ffffff1;
		memcpy(bytes.data() + offsetof(nlmsghdr, nlmsg_pid), &another_port, sizeof(another_port));
		EXPECT_EQ(result_behind(bytes, false), -ESRCH);
		EXPECT_EQ(ruleset().size(), 1U) << "the kernel has made the change all the same";
	});
}

TEST(nft_sending, forged_datagram_that_is_too_long_has_no_space)
{
	in_nft_network([] {
		EXPECT_EQ(result_behind(message_bytes(NLMSG_NOOP, 4096, 4080)), 0) << "the longest that fits";
		EXPECT_EQ(result_behind(message_bytes(NLMSG_NOOP, 4097, 4081)), -ENOSPC);
	});
}

TEST(nft_sending, answers_cannot_be_forged_without_the_capability)
{
	in_nft_network([] {
		owned_fd target{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)};
		sockaddr_nl name{};
		name.nl_family = AF_NETLINK;
		ASSERT_EQ(bind(target.get(), reinterpret_cast<sockaddr *>(&name), sizeof(name)), 0);
		name = address_of(target.get());
		expect_in_child([&] {
			ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
			owned_fd forger{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)};
			EXPECT_EQ(sendto(forger.get(), "x", 1, 0, reinterpret_cast<sockaddr *>(&name),
					  sizeof(name)),
				-1);
			EXPECT_EQ(errno, EPERM);
		});
	});
}

// ---- Many acknowledgements ----

constexpr int usual_queue_bytes = 212992;

// The queue of an unchanged net.core.rmem_default. The kernel doubles the number it is told.
void give_the_usual_queue(int fd)
{
	int bytes = usual_queue_bytes / 2;
	EXPECT_EQ(system_calls::setsockopt.next(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)), 0);
}

int queue_bytes;

void note_the_queue(int fd)
{
	socklen_t length = sizeof(queue_bytes);
	EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &queue_bytes, &length), 0);
}

// Sends so many messages over a socket with the usual queue.
int result_of_messages(size_t count)
{
	transaction change(size_t{4} << 20);
	for (size_t index = 0; index < count; index++)
		change.table(inet);
	change.finish();
	calls.after_bind = give_the_usual_queue;
	calls.before_send = note_the_queue;
	calls.received = calls.options = 0;
	return kvnft_batch_send(change.get());
}

// Refused, these leave the queue as it is, as for a process that may not make it longer.
bool is_about_the_queue(int level, int option)
{
	return level == SOL_SOCKET && (option == SO_RCVBUF || option == SO_RCVBUFFORCE);
}

TEST(nft_sending, every_change_is_acknowledged)
{
	in_nft_network([] {
		owned_set set = make_set(inet, 0, type_ether);
		add_phone(set);
		transaction change;
		change.table(inet)
			.chain(inet)
			.set(set)
			.elements_of(set)
			.accept_mark(inet, 1)
			.del_elements_of(set)
			.del_set(set)
			.flush_chain(inet)
			.flush_table(inet)
			.del_table(inet);
		calls.received = 0;
		EXPECT_EQ(change.send(), 0);
		EXPECT_EQ(calls.received, 10);
		ASSERT_EQ(transaction().table(inet).chain(inet).send(), 0);
		calls.received = 0;
		EXPECT_EQ(kvnft_del_chain_simple("c", "t", inet), 0);
		EXPECT_EQ(calls.received, 1);
	});
}

TEST(nft_sending, few_acknowledgements_fit_into_the_usual_queue)
{
	in_nft_network([] {
		EXPECT_EQ(result_of_messages(120), 0);
		EXPECT_EQ(calls.received, 120) << "one datagram each";
		EXPECT_EQ(queue_bytes, usual_queue_bytes);
		EXPECT_EQ(calls.options, 1) << "only that about refusals";
	});
}

TEST(nft_sending, thousands_of_acknowledgements_are_all_taken)
{
	in_nft_network([] {
		for (int count : {200, 1000, 5000}) {
			EXPECT_EQ(result_of_messages(static_cast<size_t>(count)), 0);
			EXPECT_EQ(calls.received, count);
		}
	});
}

TEST(nft_sending, longer_queue_is_left_as_it_is)
{
	in_nft_network([] {
		transaction change;
		for (int index = 0; index < 300; index++)
			change.table(inet);
		change.finish();
		calls.after_bind = [](int fd) {
			int bytes = 16 << 20;
			EXPECT_EQ(system_calls::setsockopt.next(
					  fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)),
				0);
		};
		calls.before_send = note_the_queue;
		EXPECT_EQ(kvnft_batch_send(change.get()), 0);
		EXPECT_EQ(queue_bytes, 32 << 20);
	});
}

// As far as net.core.rmem_max allows.
TEST(nft_sending, queue_is_made_longer_without_the_capability)
{
	in_nft_network([] {
		calls.refuses_option = [](int level, int option) {
			return level == SOL_SOCKET && option == SO_RCVBUFFORCE;
		};
		int kernels_max = std::stoi(must_run("cat /proc/sys/net/core/rmem_max"));
		EXPECT_EQ(result_of_messages(200), 0);
		EXPECT_GT(queue_bytes, std::min(usual_queue_bytes, 2 * kernels_max - 1));
	});
}

TEST(nft_sending, acknowledgements_beyond_the_queue_are_no_buffer_space_though_the_change_is_made)
{
	in_nft_network([] {
		calls.refuses_option = is_about_the_queue;
		size_t fits = 200, does_not = 1000;
		ASSERT_EQ(result_of_messages(does_not), -ENOBUFS);
		while (does_not - fits > 1) {
			size_t count = (fits + does_not) / 2;
			int result = result_of_messages(count);
			ASSERT_TRUE(result == 0 || result == -ENOBUFS) << result;
			(result == 0 ? fits : does_not) = count;
		}
		EXPECT_GT(fits, 212992U / 1000) << "several hundred bytes each";
		EXPECT_LT(fits, 212992U / 500);

		ASSERT_EQ(kvnft_del_table_simple("t", inet), 0);
		EXPECT_EQ(result_of_messages(does_not), -ENOBUFS);
		EXPECT_LE(calls.received, 1) << "what is queued is not looked at";
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
	});
}

TEST(nft_sending, refusal_behind_too_many_messages_may_be_lost_and_nothing_is_changed)
{
	in_nft_network([] {
		transaction change(size_t{4} << 20);
		for (int index = 0; index < 2000; index++)
			change.table(inet);
		change.del_table(ip).finish();
		EXPECT_EQ(kvnft_batch_send(change.get()), -ENOENT) << "where the queue may be made longer";
		EXPECT_EQ(ruleset(), no_lines);
		calls.refuses_option = is_about_the_queue;
		calls.after_bind = give_the_usual_queue;
		EXPECT_EQ(kvnft_batch_send(change.get()), -ENOBUFS);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

TEST(nft_sending, flood_of_acknowledgements_leaks_no_descriptor)
{
	in_nft_network([] {
		std::set<int> before = open_descriptors();
		calls.refuses_option = is_about_the_queue;
		for (int turn = 0; turn < 20; turn++)
			EXPECT_EQ(result_of_messages(5000), -ENOBUFS);
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST(nft_sending, batch_longer_than_the_sockets_send_buffer_is_too_long)
{
	in_nft_network([] {
		owned_fd fd{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)};
		int send_buffer_bytes = 0;
		socklen_t length = sizeof(send_buffer_bytes);
		ASSERT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, &length), 0);
		auto bytes_max = static_cast<size_t>(send_buffer_bytes) - 32;
		transaction change(bytes_max * 2);
		while (change.bytes() + 20 <= bytes_max) // and the end
			change.table(inet);
		change.finish();
		ASSERT_GT(change.bytes(), bytes_max);
		EXPECT_EQ(kvnft_batch_send(change.get()), -EMSGSIZE);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

// ---- Descriptors ----

// The kernel needs milliseconds to undo each change that it refuses.
TEST(nft_sending, ten_thousand_sends_leave_no_descriptor)
{
	in_nft_network([] {
		std::set<int> before = open_descriptors();
		transaction accepted, refused;
		accepted.finish();
		refused.del_table(inet, "missing").finish();
		int failures = 0;
		for (int turn = 0; turn < 10'000; turn++) {
			failures += kvnft_batch_send(accepted.get()) != 0;
			if (turn % 100 == 0)
				failures += kvnft_batch_send(refused.get()) != -ENOENT;
		}
		EXPECT_EQ(failures, 0);
		EXPECT_EQ(open_descriptors(), before);
	});
}

TEST(nft_sending, ten_thousand_refused_sends_leave_no_descriptor)
{
	in_nft_network([] {
		transaction change;
		change.table(inet).finish();
		expect_in_child([&] {
			ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
			std::set<int> before = open_descriptors();
			int failures = 0;
			for (int turn = 0; turn < 10'000; turn++)
				failures += kvnft_batch_send(change.get()) != -EPERM;
			EXPECT_EQ(failures, 0);
			EXPECT_EQ(open_descriptors(), before);
		});
	});
}

TEST(nft_sending, no_descriptor_left_is_the_result)
{
	in_nft_network([] {
		int next_fd = dup(0);
		close(next_fd);
		rlimit limit{};
		ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
		rlimit none_left{static_cast<rlim_t>(next_fd), limit.rlim_max};
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none_left), 0);
		EXPECT_EQ(kvnft_del_table_simple("t", inet), -EMFILE);
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
		EXPECT_EQ(kvnft_del_table_simple("t", inet), -ENOENT);
	});
}

int last_socket;

// Opens descriptors up to number `last`.
std::vector<owned_fd> descriptors_up_to(int last)
{
	std::vector<owned_fd> fillers;
	rlimit limit{};
	EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
	limit.rlim_cur = static_cast<rlim_t>(last) + 10;
	limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);
	EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
	while (fillers.empty() || fillers.back().get() < last) {
		fillers.emplace_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
		if (fillers.back().get() < 0)
			break;
	}
	EXPECT_EQ(fillers.back().get(), last) << strerror(errno);
	return fillers;
}

// The first and the last bit of select's words, and bits beyond the end of an fd_set.
TEST(nft_sending, socket_may_have_any_number)
{
	in_nft_network([] {
		std::vector<owned_fd> fillers;
		for (int number : {62, 63, 64, 127, 128, FD_SETSIZE - 1, FD_SETSIZE, FD_SETSIZE + 1, 2000,
			     4095, 4096}) {
			for (owned_fd &more : descriptors_up_to(number - 1))
				fillers.push_back(std::move(more));
			calls.received = 0;
			calls.before_send = [](int fd) { last_socket = fd; };
			EXPECT_EQ(transaction().table(inet).send(), 0);
			EXPECT_EQ(last_socket, number);
			EXPECT_EQ(calls.received, 1);
			EXPECT_EQ(kvnft_del_table_simple("missing", inet), -ENOENT);
			EXPECT_FALSE(is_open(number)) << "the socket";
		}
		calls.select_error = ENETDOWN;
		EXPECT_EQ(transaction().table(ip).send(), -ENETDOWN);
		calls.select_error = 0;
	});
}

// in_nft_network checks that no descriptor is left.
TEST(nft_sending, every_step_that_fails_is_the_result_and_closes_the_socket)
{
	in_nft_network([] {
		std::set<int> before = open_descriptors();
		for (int *error : {&calls.bind_error, &calls.getsockname_error, &calls.sendto_error,
			     &calls.select_error, &calls.recvmsg_error}) {
			*error = ENETDOWN;
			EXPECT_EQ(transaction().table(inet).send(), -ENETDOWN);
			*error = 0;
			EXPECT_EQ(open_descriptors(), before);
		}
		EXPECT_EQ(transaction().table(inet).send(), 0);
	});
}

TEST(nft_sending, nothing_is_sent_when_binding_fails)
{
	in_nft_network([] {
		calls.sent = 0;
		calls.bind_error = EADDRINUSE;
		EXPECT_EQ(transaction().table(inet).send(), -EADDRINUSE);
		calls.bind_error = 0;
		EXPECT_EQ(calls.sent, 0);
		EXPECT_EQ(ruleset(), no_lines);
	});
}

// A step after sending fails with `error`, which is the result; the table is there.
void expect_made_despite(int &failing_step, int error)
{
	in_nft_network([&] {
		failing_step = error;
		EXPECT_EQ(transaction().table(inet).send(), -error);
		failing_step = 0;
		EXPECT_EQ(ruleset(), plain({R"({"table": {"family": "inet", "name": "t"}})"}));
	});
}

TEST(nft_sending, change_is_made_although_its_answer_cannot_be_taken)
{
	expect_made_despite(calls.recvmsg_error, EIO);
}

// By a signal, for instance.
TEST(nft_sending, change_is_made_although_looking_for_answers_is_interrupted)
{
	expect_made_despite(calls.select_error, EINTR);
}

TEST(nft_sending, answers_are_never_waited_for)
{
	in_nft_network([] {
		calls.waiting = 0;
		EXPECT_EQ(transaction().table(inet).send(), 0);
		EXPECT_EQ(kvnft_del_table_simple("missing", inet), -ENOENT);
		make_rules(100);
		rules_request request;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, nullptr, nullptr), 0);
		EXPECT_EQ(calls.waiting, 0);
	});
}

// So the socket's address is neither the process's number nor that of another call.
TEST(nft_sending, callback_may_send_over_a_socket_of_its_own)
{
	in_nft_network([] {
		make_rules(2);
		rules_request request;
		auto send_another = [](const nlmsghdr *, void *count) {
			++*static_cast<int *>(count);
			EXPECT_EQ(kvnft_del_table_simple("missing", inet), -ENOENT);
			answers seen;
			rules_request inner;
			EXPECT_EQ(kvnft_send_msg_cb(inner.bytes, inner.length, answers::take, &seen), 0);
			EXPECT_EQ(seen.count, 2);
			return MNL_CB_OK;
		};
		int count = 0;
		EXPECT_EQ(kvnft_send_msg_cb(request.bytes, request.length, send_another, &count), 0);
		EXPECT_EQ(count, 2);
	});
}

TEST(nft_sending, whole_change_takes_names_up_to_the_length_of_its_batch)
{
	in_nft_network([] {
		// The batch's begin and end, the message's two headers and the name's, and its terminator.
		const size_t name_max = static_cast<size_t>(MNL_SOCKET_BUFFER_SIZE) - 20 - 20 - 20 - 4 - 1;
		EXPECT_EQ(kvnft_del_table_simple(std::string(name_max, 'n').c_str(), inet), -ERANGE)
			<< "the kernel's";
		EXPECT_EQ(kvnft_del_table_simple(std::string(name_max + 1, 'n').c_str(), inet), -ENOMEM)
			<< "ours";
	});
}

TEST(nft_kernel, one_call_with_a_name_too_long_for_a_message_is_refused)
{
	in_nft_network([] {
		std::string name(10'000, 'x');
		calls.sent = 0;
		EXPECT_EQ(kvnft_flush_chain_simple(name.c_str(), "t", inet), -ENOMEM);
		EXPECT_EQ(kvnft_flush_table_simple(name.c_str(), inet), -ENOMEM);
		EXPECT_EQ(kvnft_del_chain_simple("c", name.c_str(), inet), -ENOMEM);
		EXPECT_EQ(kvnft_del_table_simple(name.c_str(), inet), -ENOMEM);
		EXPECT_EQ(calls.sent, 0);
	});
}

} // namespace
