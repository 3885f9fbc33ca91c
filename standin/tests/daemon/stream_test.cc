// The bus daemon: messages in pieces, slow readers, floods and broken frames. No client harms it or another client.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon.h"

using testing::IsEmpty;

// ---- The stream: messages in any pieces, and what is none ----

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

TEST_F(ubusd_wire, message_may_come_byte_by_byte)
{
	raw_client a = connect();
	uint32_t object = a.add("demo", demo_signature);
	std::string bytes =
		wire::frame(wire::invoke, 77, object, objid(object) + method("echo") + payload(""));
	for (size_t i = 0; i < bytes.size(); ++i) {
		ASSERT_TRUE(a.send(bytes.substr(i, 1)));
		// Another client's answer shows that the daemon has made a pass since.
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

// ---- Slow readers, floods and many clients ----

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
		// The daemon refills the socket as it empties; two answers to another client show that it had a pass to do so.
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

// ---- Broken frames: thousands of valid ones, each with something changed ----

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

// Sends broken frames about an object of its own and one of somebody else, and connects again after it is disconnected.
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
