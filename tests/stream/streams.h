// Streams whose callbacks count and call function objects, and what passes through them.
#pragma once
#include "lib/stream.h"

#include <errno.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/support.h"

namespace stream_tests
{

using namespace support;

// A stream whose callbacks count and call function objects, which may release the record.
struct test_stream : stream {
	std::function<void(test_stream *)> on_read, on_state, on_write;
	int reads = 0, states = 0, writes = 0;
	std::vector<int> states_seen; // `state` at each notify_state

	test_stream() : stream{}
	{
		notify_read = [](stream *s) { call(s, &test_stream::reads, &test_stream::on_read); };
		notify_state = [](stream *s) {
			static_cast<test_stream *>(s)->states_seen.push_back(s->state);
			call(s, &test_stream::states, &test_stream::on_state);
		};
		notify_write = [](stream *s) { call(s, &test_stream::writes, &test_stream::on_write); };
	}
	explicit test_stream(int fd) : test_stream() { EXPECT_EQ(stream_init(this, fd), 0); }
	~test_stream() { stream_cleanup(this); }
	test_stream(const test_stream &) = delete;
	test_stream &operator=(const test_stream &) = delete;

	std::string received()
	{
		int32_t length = 0;
		const char *bytes = buffer_get_data(rx, &length);
		return std::string(bytes, static_cast<size_t>(length));
	}
	std::string take_received()
	{
		std::string bytes = received();
		buffer_consume(rx, buffer_length(rx));
		return bytes;
	}
	std::string unsent()
	{
		int32_t length = 0;
		const char *bytes = buffer_get_data(tx, &length);
		return std::string(bytes, static_cast<size_t>(length));
	}

private:
	static void call(
		stream *s, int test_stream::*count, std::function<void(test_stream *)> test_stream::*function)
	{
		test_stream *self = static_cast<test_stream *>(s);
		++(self->*count);
		if (auto copy = self->*function)
			copy(self);
	}
};

// A stream whose `read` and `write` follow a script. Each entry is one result; a positive one moves that many
// bytes, and with an empty script reads find nothing and writes take nothing.
struct scripted_stream : test_stream {
	std::deque<int32_t> read_results, write_results;
	std::vector<uint32_t> read_counts, write_counts; // what was asked for
	std::string written;
	owned_fd event;

	// On an eventfd, which is writable, and readable once `make_readable` was called.
	scripted_stream() : event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
	{
		read = [](stream *s, void *bytes, uint32_t count) {
			auto *self = static_cast<scripted_stream *>(s);
			self->read_counts.push_back(count);
			int32_t result = next(&self->read_results, -EAGAIN);
			if (result > 0)
				memset(bytes, 'r', std::min(static_cast<uint32_t>(result), count));
			return result;
		};
		write = [](stream *s, const void *bytes, uint32_t count) {
			auto *self = static_cast<scripted_stream *>(s);
			self->write_counts.push_back(count);
			int32_t result = std::min(next(&self->write_results, 0), static_cast<int32_t>(count));
			if (result > 0)
				self->written.append(
					static_cast<const char *>(bytes), static_cast<size_t>(result));
			return result;
		};
		EXPECT_EQ(stream_init(this, event.get()), 0);
	}
	~scripted_stream() { stream_cleanup(this); } // before its descriptor is closed
	void make_readable() const { EXPECT_EQ(eventfd_write(event.get(), 1), 0); }
	void make_unreadable() const { read_available(event.get()); }

private:
	static int32_t next(std::deque<int32_t> *results, int32_t otherwise)
	{
		if (results->empty())
			return otherwise;
		int32_t result = results->front();
		results->pop_front();
		return result;
	}
};

inline std::string pattern(size_t length, unsigned seed = 1)
{
	std::mt19937 random(seed);
	std::string bytes(length, '\0');
	for (char &byte : bytes)
		byte = static_cast<char>(random());
	return bytes;
}

// Fills the socket's way to its peer; returns what went in.
inline std::string fill(int fd)
{
	std::string bytes;
	set_nonblocking(fd);
	std::string chunk(1000, 'f');
	ssize_t count;
	while ((count = write(fd, chunk.data(), chunk.size())) > 0)
		bytes.append(chunk, 0, static_cast<size_t>(count));
	return bytes;
}

} // namespace stream_tests
