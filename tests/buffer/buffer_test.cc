// The byte buffer: appending, the exact growth, formatted text, consuming, and what ends the process.
#include "lib/buffer.h"

#include <errno.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <random>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <tuple>
#include <wchar.h>

#include "lib/log.h"
#include "tests/support/memory.h"
#include "tests/support/support.h"

namespace
{

// A block that can grow without memory: realloc leaves it where it is,
void *growable;
size_t grown_to; // and says here how large it should have become

void *grow(void *block, size_t size)
{
	if (!block || block != growable)
		return nullptr;
	grown_to = size;
	return block;
}

// A buffer that is released with its owner.
struct owned_buffer {
	buffer *b;

	explicit owned_buffer(int32_t size) : b(buffer_new_with_size(size)) {}
	owned_buffer(const owned_buffer &) = delete;
	owned_buffer &operator=(const owned_buffer &) = delete;
	~owned_buffer() { buffer_free(b); }

	int32_t write(const std::string &bytes) const
	{
		return buffer_write(b, bytes.data(), static_cast<int32_t>(bytes.size()));
	}
	std::string text() const { return {b->data, static_cast<size_t>(b->length)}; }
};

// A full-sized buffer of which only the end is memory: not every machine has room for the whole in one piece.
class vast_buffer
{
	static constexpr uintptr_t space = uintptr_t{1} << 31;
	static constexpr size_t end_bytes = 1 << 16;
	void *end_ = mmap(nullptr, end_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);

	char *beginning() const
	{
		return reinterpret_cast<char *>(reinterpret_cast<uintptr_t>(end_) + end_bytes - space);
	}

public:
	buffer b;

	vast_buffer(int32_t size, int32_t length) : b{beginning(), size, length}
	{
		EXPECT_NE(end_, MAP_FAILED);
		memory.give = grow;
		growable = b.data;
		grown_to = 0;
	}
	vast_buffer(const vast_buffer &) = delete;
	vast_buffer &operator=(const vast_buffer &) = delete;
	~vast_buffer()
	{
		growable = nullptr;
		munmap(end_, end_bytes);
	}
};

__attribute__((format(printf, 2, 3))) int32_t print_with_list(buffer *b, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	int32_t result = buffer_vprintf(b, format, arguments);
	va_end(arguments);
	return result;
}

void expect_out_of_memory(const std::function<void()> &body)
{
	support::child_result result = support::run_child([&body] {
		set_app_name("app");
		body();
	});
	EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
	EXPECT_EQ(result.err, "app: out of memory\n");
	EXPECT_EQ(result.out, "");
}

// Appends "ab" and then the formatted text to a buffer with `room` bytes left, and holds the result to
// snprintf.
template <typename... arguments>
void expect_as_snprintf(int32_t room, const char *format, arguments... values)
{
	if (testing::Test::HasFailure())
		return; // the first is enough
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
	char expected[64];
	int32_t length = snprintf(expected, sizeof expected, format, values...);
	owned_buffer b(2 + room);
	b.write("ab");
	memset(b.b->data + 2, 'x', static_cast<size_t>(room));
	int32_t result = buffer_printf(b.b, format, values...);
#pragma GCC diagnostic pop
	SCOPED_TRACE("format " + std::string(format) + ", room " + std::to_string(room));
	if (length < room) {
		EXPECT_EQ(result, length);
		EXPECT_EQ(b.text(), "ab" + std::string(expected));
		EXPECT_EQ(b.b->data[2 + length], '\0');
		EXPECT_EQ(b.b->size, 2 + room);
	} else {
		EXPECT_EQ(result, -ENOMEM);
		EXPECT_EQ(b.text(), "ab");
		EXPECT_EQ(b.b->size, 2 + length);
	}
}

} // namespace

TEST(buffer_new, is_empty_and_has_512_bytes)
{
	buffer *b = buffer_new();
	EXPECT_NE(b->data, nullptr);
	EXPECT_EQ(b->size, 512);
	EXPECT_EQ(b->length, 0);
	memset(b->data, 'x', 512);
	buffer_free(b);
}

TEST(buffer_new_with_size, has_the_size_asked_for)
{
	owned_buffer small(1);
	EXPECT_NE(small.b->data, nullptr);
	EXPECT_EQ(small.b->size, 1);
	EXPECT_EQ(small.b->length, 0);
	small.b->data[0] = 'x';
}

TEST(buffer_new_with_size, of_zero_has_storage_all_the_same_and_grows)
{
	owned_buffer none(0);
	EXPECT_NE(none.b->data, nullptr);
	EXPECT_EQ(none.b->size, 0);
	EXPECT_EQ(none.b->length, 0);
	EXPECT_EQ(none.write("abc"), 3);
	EXPECT_EQ(none.b->size, 131);
	EXPECT_EQ(none.text(), "abc");
}

TEST(buffer_new_with_size, counts_a_negative_size_as_zero)
{
	for (int32_t size : {-1, -512, INT32_MIN}) {
		owned_buffer none(size);
		EXPECT_NE(none.b->data, nullptr);
		EXPECT_EQ(none.b->size, 0);
		EXPECT_EQ(none.b->length, 0);
		EXPECT_EQ(none.write("x"), 1);
		EXPECT_EQ(none.b->size, 129);
	}
}

TEST(buffer_new_with_size, without_memory_for_the_record_ends_the_process)
{
	expect_out_of_memory([] {
		memory.refuse_from(0);
		buffer_new();
	});
}

TEST(buffer_new_with_size, without_memory_for_the_storage_ends_the_process)
{
	expect_out_of_memory([] {
		memory.refuse_from(1); // the record
		buffer_new_with_size(16);
	});
}

TEST(buffer_free, ignores_null)
{
	buffer_free(nullptr);
}

TEST(buffer_length, is_the_number_of_bytes_in_use)
{
	owned_buffer b(4);
	EXPECT_EQ(buffer_length(b.b), 0);
	b.write("abc");
	EXPECT_EQ(buffer_length(b.b), 3);
}

TEST(buffer_length, of_null_is_zero)
{
	EXPECT_EQ(buffer_length(nullptr), 0);
}

TEST(buffer_get_data, gives_the_storage_and_the_length)
{
	owned_buffer b(4);
	b.write("ab");
	int32_t length = -7;
	EXPECT_EQ(buffer_get_data(b.b, &length), b.b->data);
	EXPECT_EQ(length, 2);
}

TEST(buffer_get_data, of_an_empty_buffer_is_not_null)
{
	owned_buffer b(0);
	int32_t length = -7;
	EXPECT_NE(buffer_get_data(b.b, &length), nullptr);
	EXPECT_EQ(length, 0);
}

TEST(buffer_get_data, of_null_is_null_and_leaves_the_length_alone)
{
	int32_t length = -7;
	EXPECT_EQ(buffer_get_data(nullptr, &length), nullptr);
	EXPECT_EQ(length, -7);
}

TEST(buffer_write, appends_and_returns_the_count)
{
	owned_buffer b(16);
	EXPECT_EQ(b.write("abc"), 3);
	EXPECT_EQ(b.write("defgh"), 5);
	EXPECT_EQ(b.text(), "abcdefgh");
	EXPECT_EQ(b.b->size, 16);
}

TEST(buffer_write, keeps_every_byte_value)
{
	std::string bytes;
	for (int byte = 0; byte < 256; byte++)
		bytes += static_cast<char>(byte);
	owned_buffer b(1);
	EXPECT_EQ(b.write(bytes), 256);
	EXPECT_EQ(b.text(), bytes);
}

TEST(buffer_write, fills_the_storage_to_the_last_byte_without_growing)
{
	owned_buffer b(8);
	EXPECT_EQ(b.write("12345678"), 8);
	EXPECT_EQ(b.b->size, 8);
	EXPECT_EQ(b.b->length, 8);
}

TEST(buffer_write, of_10_bytes_into_a_buffer_of_4_grows_it_to_142)
{
	owned_buffer b(4);
	EXPECT_EQ(b.write("0123456789"), 10);
	EXPECT_EQ(b.b->size, 142);
	EXPECT_EQ(b.b->length, 10);
	EXPECT_EQ(b.text(), "0123456789");
}

TEST(buffer_write, of_1_byte_into_a_full_buffer_of_512_grows_it_to_641)
{
	owned_buffer b(512);
	b.write(std::string(512, 'a'));
	EXPECT_EQ(b.b->size, 512);
	EXPECT_EQ(b.write("b"), 1);
	EXPECT_EQ(b.b->size, 641);
	EXPECT_EQ(b.text(), std::string(512, 'a') + "b");
	memset(b.b->data + 513, 'x', 128); // all of it is owned
}

TEST(buffer_write, grows_by_the_whole_count_though_part_of_it_would_have_fitted)
{
	owned_buffer b(10);
	b.write("12345678");
	EXPECT_EQ(b.write("abc"), 3);
	EXPECT_EQ(b.b->size, 10 + 3 + 128);
	EXPECT_EQ(b.text(), "12345678abc");
}

TEST(buffer_write, grows_to_the_stated_sizes_time_and_again)
{
	owned_buffer b(0);
	b.write("x");
	EXPECT_EQ(b.b->size, 129);
	b.write(std::string(128, 'x'));
	EXPECT_EQ(b.b->size, 129);
	b.write("x");
	EXPECT_EQ(b.b->size, 258);
	b.write(std::string(1000, 'x'));
	EXPECT_EQ(b.b->size, 258 + 1128);
	EXPECT_EQ(b.b->length, 1130);
}

TEST(buffer_write, of_0_bytes_into_a_full_buffer_does_not_grow_it)
{
	owned_buffer b(4);
	b.write("abcd");
	EXPECT_EQ(buffer_write(b.b, "x", 0), 0);
	EXPECT_EQ(b.b->size, 4);
	EXPECT_EQ(b.text(), "abcd");
}

TEST(buffer_write, of_0_bytes_takes_null_for_the_bytes)
{
	owned_buffer full(0), empty(4);
	EXPECT_EQ(buffer_write(full.b, nullptr, 0), 0);
	EXPECT_EQ(full.b->size, 0);
	EXPECT_EQ(buffer_write(empty.b, nullptr, 0), 0);
	EXPECT_EQ(empty.b->length, 0);
}

TEST(buffer_write, to_null_is_minus_1)
{
	EXPECT_EQ(buffer_write(nullptr, "abc", 3), -1);
	EXPECT_EQ(buffer_write(nullptr, "abc", 0), -1);
	EXPECT_EQ(buffer_write(nullptr, "abc", -3), -1);
	EXPECT_EQ(buffer_write(nullptr, nullptr, 0), -1);
}

TEST(buffer_write, of_a_negative_count_is_refused)
{
	owned_buffer b(4);
	b.write("ab");
	for (int32_t count : {-1, -2, -3, -200, INT32_MIN}) {
		EXPECT_EQ(buffer_write(b.b, "xyz", count), -EINVAL);
		EXPECT_EQ(b.b->size, 4);
		EXPECT_EQ(b.text(), "ab");
	}
}

TEST(buffer_write, beyond_the_largest_length_is_refused_and_changes_nothing)
{
	vast_buffer vast(INT32_MAX - 10, INT32_MAX - 10);
	for (int32_t count : {11, 12, 138, 139, INT32_MAX}) {
		EXPECT_EQ(buffer_write(&vast.b, "x", count), -ENOMEM);
		EXPECT_EQ(vast.b.size, INT32_MAX - 10);
		EXPECT_EQ(vast.b.length, INT32_MAX - 10);
	}
	EXPECT_EQ(grown_to, 0u);
}

TEST(buffer_write, of_the_largest_count_to_a_buffer_in_use_is_refused)
{
	owned_buffer b(4);
	b.write("a");
	EXPECT_EQ(buffer_write(b.b, "x", INT32_MAX), -ENOMEM);
	EXPECT_EQ(b.b->size, 4);
	EXPECT_EQ(b.text(), "a");
}

TEST(buffer_write, reaches_the_largest_length_exactly)
{
	vast_buffer vast(INT32_MAX, INT32_MAX - 3);
	EXPECT_EQ(buffer_write(&vast.b, "xyz", 3), 3);
	EXPECT_EQ(vast.b.length, INT32_MAX);
	EXPECT_EQ(memcmp(vast.b.data + INT32_MAX - 3, "xyz", 3), 0);
	EXPECT_EQ(buffer_write(&vast.b, "x", 0), 0);
	EXPECT_EQ(buffer_write(&vast.b, "x", 1), -ENOMEM);
	EXPECT_EQ(vast.b.length, INT32_MAX);
}

TEST(buffer_write, grows_at_most_to_the_largest_size)
{
	vast_buffer vast(INT32_MAX - 10, INT32_MAX - 10);
	EXPECT_EQ(buffer_write(&vast.b, "xyz", 3), 3);
	EXPECT_EQ(vast.b.length, INT32_MAX - 7);
	EXPECT_EQ(vast.b.size, INT32_MAX);
	EXPECT_EQ(grown_to, static_cast<size_t>(INT32_MAX));
	EXPECT_EQ(memcmp(vast.b.data + INT32_MAX - 10, "xyz", 3), 0);
}

TEST(buffer_write, without_memory_to_grow_ends_the_process)
{
	expect_out_of_memory([] {
		buffer *b = buffer_new_with_size(4);
		memory.refuse_from(0);
		buffer_write(b, "abcd", 4); // fits
		buffer_write(b, "e", 1);
	});
}

TEST(buffer_printf, appends_the_text_without_counting_its_zero)
{
	owned_buffer b(32);
	b.write("<");
	EXPECT_EQ(buffer_printf(b.b, "%d %s %c", -5, "five", '!'), 9);
	EXPECT_EQ(b.text(), "<-5 five !");
	EXPECT_EQ(b.b->size, 32);
	EXPECT_EQ(buffer_printf(b.b, "%lld", 1234567890123LL), 13);
	EXPECT_EQ(b.text(), "<-5 five !1234567890123");
}

TEST(buffer_printf, that_fits_with_its_zero_succeeds)
{
	owned_buffer b(4);
	EXPECT_EQ(buffer_printf(b.b, "%s", "abc"), 3);
	EXPECT_EQ(b.text(), "abc");
	EXPECT_EQ(b.b->data[3], '\0');
	EXPECT_EQ(b.b->size, 4);
}

TEST(buffer_printf, that_fits_without_its_zero_fails_and_changes_nothing)
{
	owned_buffer b(3);
	EXPECT_EQ(buffer_printf(b.b, "%s", "abc"), -ENOMEM);
	EXPECT_EQ(b.b->size, 3);
	EXPECT_EQ(b.b->length, 0);
}

TEST(buffer_printf, of_10_characters_into_4_free_bytes_fails_and_grows_by_6)
{
	owned_buffer b(9);
	b.write("12345");
	EXPECT_EQ(buffer_printf(b.b, "%d%s", 12345, "abcde"), -ENOMEM);
	EXPECT_EQ(b.b->size, 15);
	EXPECT_EQ(b.text(), "12345");
	memset(b.b->data, 'x', 15); // all of it is owned
}

TEST(buffer_printf, repeated_after_a_failure_fails_again_without_growing)
{
	owned_buffer b(4);
	EXPECT_EQ(buffer_printf(b.b, "%s", "0123456789"), -ENOMEM);
	EXPECT_EQ(b.b->size, 10);
	for (int attempt = 0; attempt < 3; attempt++) {
		EXPECT_EQ(buffer_printf(b.b, "%s", "0123456789"), -ENOMEM);
		EXPECT_EQ(b.b->size, 10);
		EXPECT_EQ(b.b->length, 0);
	}
}

TEST(buffer_printf, fits_after_a_failure_once_there_is_a_byte_more)
{
	owned_buffer b(4);
	b.write("x");
	EXPECT_EQ(buffer_printf(b.b, "%s", "0123456789"), -ENOMEM);
	EXPECT_EQ(b.b->size, 11);
	buffer_consume(b.b, 1);
	EXPECT_EQ(buffer_printf(b.b, "%s", "0123456789"), 10);
	EXPECT_EQ(b.text(), "0123456789");
}

TEST(buffer_printf, into_a_full_buffer_grows_by_the_text)
{
	owned_buffer b(4);
	b.write("abcd");
	EXPECT_EQ(buffer_printf(b.b, "%s", "xyz"), -ENOMEM);
	EXPECT_EQ(b.b->size, 7);
	EXPECT_EQ(b.text(), "abcd");
}

TEST(buffer_printf, of_an_empty_text_needs_room_for_its_zero)
{
	owned_buffer full(2), none(0), one(1);
	full.write("ab");
	EXPECT_EQ(buffer_printf(full.b, "%s", ""), -ENOMEM);
	EXPECT_EQ(full.b->size, 2);
	EXPECT_EQ(full.text(), "ab");
	EXPECT_EQ(buffer_printf(none.b, "%s", ""), -ENOMEM);
	EXPECT_EQ(none.b->size, 0);
	EXPECT_NE(none.b->data, nullptr);
	EXPECT_EQ(buffer_printf(one.b, "%s", ""), 0);
	EXPECT_EQ(one.b->length, 0);
	EXPECT_EQ(one.b->size, 1);
}

TEST(buffer_printf, into_a_buffer_of_size_0_grows_it_by_the_text)
{
	owned_buffer b(0);
	EXPECT_EQ(buffer_printf(b.b, "%s", "abc"), -ENOMEM);
	EXPECT_EQ(b.b->size, 3);
	EXPECT_EQ(b.b->length, 0);
}

TEST(buffer_printf, of_a_long_text_grows_by_what_it_lacks)
{
	owned_buffer b(512);
	b.write("head");
	std::string text(100000, 'y');
	EXPECT_EQ(buffer_printf(b.b, "%s", text.c_str()), -ENOMEM);
	EXPECT_EQ(b.b->size, 4 + 100000);
	EXPECT_EQ(b.text(), "head");
}

TEST(buffer_printf, writes_what_snprintf_writes_with_its_zero_whatever_room_there_is)
{
	for (int32_t room = 0; room < 24; room++) {
		for (int number : {0, 1, -1, 9, 10, -10, 1234567890, INT_MAX, INT_MIN}) {
			expect_as_snprintf(room, "%d", number);
			expect_as_snprintf(room, "%i", number);
			expect_as_snprintf(room, "%6d", number);
			expect_as_snprintf(room, "%d.", number);
			expect_as_snprintf(room, "<%d", number);
			expect_as_snprintf(room, "%u", static_cast<unsigned>(number));
		}
		for (const char *text : {"", "a", "%s", "a text of words"}) {
			expect_as_snprintf(room, "%s", text);
			expect_as_snprintf(room, "%.3s", text);
			expect_as_snprintf(room, "%s.", text);
		}
		expect_as_snprintf(room, "%s", static_cast<const char *>(nullptr));
		expect_as_snprintf(room, "");
		expect_as_snprintf(room, "no conversion");
		expect_as_snprintf(room, "100 %%");
		expect_as_snprintf(room, "%s%d", "number ", 5);
	}
}

TEST(buffer_printf, to_null_is_minus_1)
{
	EXPECT_EQ(buffer_printf(nullptr, "%d", 1), -1);
}

TEST(buffer_printf, passes_a_failure_to_format_on)
{
	owned_buffer b(16);
	b.write("ab");
	const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};
	EXPECT_EQ(buffer_printf(b.b, "%ls", no_character), -1);
	EXPECT_EQ(b.b->size, 16);
	EXPECT_EQ(b.text(), "ab");
}

TEST(buffer_printf, that_would_pass_the_largest_length_is_refused)
{
	vast_buffer vast(INT32_MAX, INT32_MAX - 5);
	EXPECT_EQ(buffer_printf(&vast.b, "%s", "0123456789"), -ENOMEM);
	EXPECT_EQ(vast.b.size, INT32_MAX);
	EXPECT_EQ(vast.b.length, INT32_MAX - 5);
}

TEST(buffer_printf, without_memory_to_grow_ends_the_process)
{
	expect_out_of_memory([] {
		buffer *b = buffer_new_with_size(4);
		memory.refuse_from(0);
		std::ignore = buffer_printf(b, "%s", "abc"); // fits
		std::ignore = buffer_printf(b, "%s", "abc");
	});
}

TEST(buffer_vprintf, formats_as_buffer_printf_does)
{
	owned_buffer b(12);
	EXPECT_EQ(print_with_list(b.b, "%s-%d-%s", "a", 7, "b"), 5);
	EXPECT_EQ(b.text(), "a-7-b");
	EXPECT_EQ(print_with_list(b.b, "%s-%d-%s", "cdefgh", 8, "i"), -ENOMEM);
	EXPECT_EQ(b.b->size, 15);
	EXPECT_EQ(b.text(), "a-7-b");
	EXPECT_EQ(print_with_list(nullptr, "%d", 1), -1);
}

TEST(buffer_consume, drops_bytes_from_the_front)
{
	owned_buffer b(16);
	b.write("abcdefgh");
	buffer_consume(b.b, 3);
	EXPECT_EQ(b.text(), "defgh");
	buffer_consume(b.b, 1);
	EXPECT_EQ(b.text(), "efgh");
	EXPECT_EQ(b.b->size, 16);
}

TEST(buffer_consume, of_the_whole_length_or_more_empties_the_buffer)
{
	for (int32_t count : {3, 4, 1000, INT32_MAX}) {
		owned_buffer b(16);
		b.write("abc");
		buffer_consume(b.b, count);
		EXPECT_EQ(b.b->length, 0);
		EXPECT_EQ(b.b->size, 16);
		buffer_consume(b.b, count);
		EXPECT_EQ(b.b->length, 0);
	}
}

TEST(buffer_consume, of_nothing_or_less_is_ignored)
{
	owned_buffer b(16);
	b.write("abc");
	for (int32_t count : {0, -1, -3, INT32_MIN}) {
		buffer_consume(b.b, count);
		EXPECT_EQ(b.text(), "abc");
	}
}

TEST(buffer_consume, ignores_null)
{
	buffer_consume(nullptr, 1);
	buffer_consume(nullptr, INT32_MIN);
}

TEST(buffer_consume, makes_its_room_free_again)
{
	owned_buffer b(4);
	b.write("abcd");
	buffer_consume(b.b, 2);
	EXPECT_EQ(b.write("ef"), 2);
	EXPECT_EQ(b.b->size, 4);
	EXPECT_EQ(b.text(), "cdef");
}

TEST(buffer_reset, empties_and_keeps_the_storage)
{
	owned_buffer b(4);
	b.write("abcdefgh");
	char *data = b.b->data;
	int32_t size = b.b->size;
	buffer_reset(b.b);
	EXPECT_EQ(b.b->length, 0);
	EXPECT_EQ(b.b->size, size);
	EXPECT_EQ(b.b->data, data);
	buffer_reset(b.b);
	EXPECT_EQ(b.b->length, 0);
}

TEST(buffer_reset, of_null_is_an_assertion_that_fails)
{
	support::child_result result = support::run_child([] {
		log_open(LOG_DEST_STDIO, 8, nullptr);
		set_app_name("app");
		buffer_reset(nullptr);
	});
	EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
	EXPECT_THAT(
		result.err, testing::MatchesRegex("app: lib/buffer\\.cc:[0-9]+: assertion buffer failed in "
						  "buffer_reset\\(\\)\n"));
}

TEST(buffer, behaves_like_a_text_under_random_calls)
{
	for (unsigned seed = 1; seed <= 20; seed++) {
		std::mt19937 random(seed);
		auto up_to = [&random](int32_t max) { return static_cast<int32_t>(random() % (max + 1u)); };
		int32_t size = up_to(40);
		owned_buffer b(size);
		std::string model;
		for (int step = 0; step < 3000; step++) {
			int32_t length = static_cast<int32_t>(model.size());
			int32_t room = size - length;
			std::string bytes(static_cast<size_t>(up_to(step % 10 ? 30 : 700)), '\0');
			for (char &byte : bytes)
				byte = static_cast<char>('a' + up_to(25));
			int32_t count = static_cast<int32_t>(bytes.size());
			switch (up_to(7)) {
			case 0:
			case 1:
				ASSERT_EQ(b.write(bytes), count);
				model += bytes;
				if (size < length + count)
					size += count + 128;
				break;
			case 2:
			case 3:
				if (count < room) {
					ASSERT_EQ(buffer_printf(b.b, "%s", bytes.c_str()), count);
					model += bytes;
				} else {
					ASSERT_EQ(buffer_printf(b.b, "%s", bytes.c_str()), -ENOMEM);
					size += count - room;
				}
				break;
			case 4:
			case 5:
			case 6:
				count -= 3; // sometimes negative
				buffer_consume(b.b, count);
				model.erase(0, static_cast<size_t>(std::max(count, 0)));
				break;
			default:
				if (step % 16 == 0) {
					buffer_reset(b.b);
					model.clear();
				}
			}
			ASSERT_EQ(b.text(), model) << "seed " << seed << ", step " << step;
			ASSERT_EQ(b.b->size, size) << "seed " << seed << ", step " << step;
			ASSERT_LE(b.b->length, b.b->size);
		}
	}
}
