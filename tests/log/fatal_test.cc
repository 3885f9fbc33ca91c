// The fatal reports, and the allocation that never fails.
#include "tests/log/scene.h"

#include <syslog.h>

#include "tests/support/memory.h"

using namespace log_tests;

// ---- Fatal reports ----

TEST(assert_failure, reports_name_place_expression_and_function_and_aborts)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name("app");
		assert_failure("lib/evloop-process.c:36", "evloop_process_is_pending", "p");
	}),
		"app: lib/evloop-process.c:36: assertion p failed in evloop_process_is_pending()\n");
}

TEST(assert_failure, is_a_message_of_priority_3_at_every_destination)
{
	scene s;
	const std::string text = "foo: app: a.c:1: assertion b failed in c()\n";
	expect_abort(s.run([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG | LOG_DEST_STDIO, LOG_DAEMON, "foo");
		set_app_name("app");
		assert_failure("a.c:1", "c", "b");
	}),
		text);
	EXPECT_EQ(s.kmsg(), "<3>" + text);
	EXPECT_EQ(s.syslog(), lines{"<27>" + text});
}

TEST(assert_failure, may_be_the_first_message)
{
	scene s;
	expect_abort(s.run([] {
		set_app_name("app");
		assert_failure("a.c:1", "c", "b");
	}),
		"");
	EXPECT_EQ(s.syslog(), lines{"<27>daemon: app: a.c:1: assertion b failed in c()\n"});
}

TEST(assert_failure, prints_its_texts_as_they_are)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name("%s%n");
		assert_failure("%d.c:1", "%f", "a %s b");
	}),
		"%s%n: %d.c:1: assertion a %s b failed in %f()\n");
}

TEST(assert_failure, without_an_application_name_prints_the_programs)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		assert_failure("a.c:1", "c", "b");
	}),
		program() + ": a.c:1: assertion b failed in c()\n");
}

TEST(set_app_name, borrows_the_name_and_takes_null_back)
{
	scene s;
	expect_abort(s.run([] {
		static char name[] = "old";
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name(name);
		memcpy(name, "new", 3);
		assert_failure("a.c:1", "c", "b");
	}),
		"new: a.c:1: assertion b failed in c()\n");
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name("app");
		set_app_name(nullptr);
		assert_failure("a.c:1", "c", "b");
	}),
		program() + ": a.c:1: assertion b failed in c()\n");
}

TEST(set_app_name, is_not_the_identity)
{
	scene s;
	s.log([] {
		set_app_name("app");
		log_open(LOG_DEST_KMSG, LOG_USER, "foo");
		_log(LOG_INFO, "x\n");
		log_open(LOG_DEST_KMSG, LOG_USER, nullptr);
		_log(LOG_INFO, "y\n");
	});
	EXPECT_EQ(s.kmsg(), "<6>foo: x\n<6>y\n");
}

TEST(assert_failure, lets_the_daemons_handler_of_the_signal_run)
{
	scene s;
	child_result result = s.run([] {
		signal(SIGABRT, [](int) { _exit(77); });
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		assert_failure("a.c:1", "c", "b");
	});
	EXPECT_TRUE(result.exited_with(77)) << result.report();
}

TEST(log_assert, that_holds_is_evaluated_once_and_nothing_more)
{
	scene s;
	child_result result = s.log([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		int count = 0;
		log_assert(++count);
		EXPECT_EQ(count, 1);
		if (count)
			log_assert(count == 1);
		else
			log_assert(!count);
	});
	EXPECT_EQ(result.out + result.err, "");
}

namespace
{
constexpr int check_line = __LINE__ + 3;
void check_even(int number)
{
	log_assert(number % 2 == 0 && "even");
}
} // namespace

TEST(log_assert, that_fails_reports_its_place_function_and_expression)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, nullptr);
		set_app_name("app");
		check_even(2);
		check_even(3);
	}),
		"app: " __FILE__ ":" + std::to_string(check_line) +
			": assertion number % 2 == 0 && \"even\" failed in check_even()\n");
}

TEST(out_of_memory, writes_straight_to_stderr_and_aborts)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_KMSG | LOG_DEST_SYSLOG, LOG_USER, "foo");
		set_app_name("app");
		out_of_memory();
	}),
		"app: out of memory\n");
	EXPECT_EQ(s.kmsg(), "");
	EXPECT_EQ(s.syslog(), lines());
}

TEST(out_of_memory, prints_no_identity)
{
	scene s;
	expect_abort(s.run([] {
		log_open(LOG_DEST_STDIO, LOG_USER, "foo");
		set_app_name("app");
		out_of_memory();
	}),
		"app: out of memory\n");
}

TEST(out_of_memory, without_an_application_name_prints_the_programs)
{
	scene s;
	expect_abort(s.run([] { out_of_memory(); }), program() + ": out of memory\n");
}

// ---- Allocation ----

namespace
{

// The compiler knows that these never return null, and would not look.
template <typename T>
bool is_null(T *pointer)
{
	T *volatile unknown = pointer;
	return !unknown;
}

class dirty_memory : public testing::Test
{
protected:
	dirty_memory() { memory.dirty = true; }
	~dirty_memory() override { memory.dirty = false; }
};

void expect_out_of_memory(const std::function<void()> &body)
{
	child_result result = support::run_child([&body] {
		rlimit none = {0, 0};
		setrlimit(RLIMIT_CORE, &none);
		log_open(LOG_DEST_STDIO, LOG_USER, "foo");
		set_app_name("app");
		body();
	});
	expect_abort(result, "app: out of memory\n");
}

unsigned char first_byte(void *block)
{
	return *static_cast<volatile unsigned char *>(block);
}

} // namespace

TEST(xmalloc, of_0_gives_a_block_of_one_byte)
{
	void *one = xmalloc(0), *other = xmalloc(0);
	EXPECT_EQ(memory.last_size, 1u);
	EXPECT_FALSE(is_null(one));
	EXPECT_FALSE(is_null(other));
	EXPECT_NE(one, other);
	*static_cast<char *>(one) = 'x';
	free(one);
	free(other);
}

TEST(xmalloc, gives_the_size_asked_for)
{
	void *block = xmalloc(1000);
	EXPECT_EQ(memory.last_size, 1000u);
	memset(block, 'x', 1000);
	free(block);
}

TEST(xmalloc, without_memory_ends_the_process)
{
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xmalloc(1));
	});
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xmalloc(0));
	});
}

TEST(xmalloc, of_more_than_there_can_be_ends_the_process)
{
	expect_out_of_memory([] { free(xmalloc(SIZE_MAX)); });
}

TEST_F(dirty_memory, xcalloc_zeroes)
{
	char *block = static_cast<char *>(xcalloc(25, 40));
	EXPECT_EQ(memory.last_size, 1000u);
	EXPECT_EQ(std::string(block, 1000), std::string(1000, '\0'));
	free(block);
}

TEST_F(dirty_memory, xcalloc_of_0_gives_a_byte_that_is_not_zeroed)
{
	const size_t sizes[][2] = {{0, 8}, {8, 0}, {0, 0}, {0, SIZE_MAX}, {SIZE_MAX, 0}};
	for (auto [count, size] : sizes) {
		void *block = xcalloc(count, size);
		EXPECT_EQ(memory.last_size, 1u);
		EXPECT_FALSE(is_null(block));
		EXPECT_EQ(first_byte(block), DIRT);
		free(block);
	}
}

TEST_F(dirty_memory, xzalloc_zeroes)
{
	char *block = static_cast<char *>(xzalloc(1000));
	EXPECT_EQ(memory.last_size, 1000u);
	EXPECT_EQ(std::string(block, 1000), std::string(1000, '\0'));
	free(block);
}

TEST_F(dirty_memory, xzalloc_of_0_gives_a_byte_that_is_not_zeroed)
{
	void *block = xzalloc(0);
	EXPECT_EQ(memory.last_size, 1u);
	EXPECT_FALSE(is_null(block));
	EXPECT_EQ(first_byte(block), DIRT);
	free(block);
}

TEST(xcalloc, without_memory_ends_the_process)
{
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xcalloc(2, 3));
	});
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xcalloc(0, 3));
	});
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xzalloc(1));
	});
	expect_out_of_memory([] {
		memory.refuse_from(0);
		free(xzalloc(0));
	});
}

TEST(xcalloc, of_a_product_that_overflows_ends_the_process)
{
	expect_out_of_memory([] { free(xcalloc(SIZE_MAX / 2 + 2, 2)); });
	expect_out_of_memory(
		[] { free(xcalloc(size_t{1} << (sizeof(size_t) * 4), size_t{1} << (sizeof(size_t) * 4))); });
	expect_out_of_memory([] { free(xcalloc(SIZE_MAX, SIZE_MAX)); });
}

TEST(xrealloc, keeps_the_content)
{
	char *block = static_cast<char *>(xmalloc(4));
	memcpy(block, "abc", 4);
	block = static_cast<char *>(xrealloc(block, 100000));
	EXPECT_STREQ(block, "abc");
	block[99999] = 'x';
	block = static_cast<char *>(xrealloc(block, 2));
	EXPECT_EQ(block[0], 'a');
	EXPECT_EQ(block[1], 'b');
	free(block);
}

TEST(xrealloc, to_0_shrinks_to_one_byte_and_does_not_free)
{
	char *block = static_cast<char *>(xmalloc(100));
	block[0] = 'a';
	block = static_cast<char *>(xrealloc(block, 0));
	EXPECT_EQ(memory.last_size, 1u);
	EXPECT_FALSE(is_null(block));
	EXPECT_EQ(block[0], 'a');
	free(block);
}

TEST(xrealloc, of_null_gives_a_new_block)
{
	void *block = xrealloc(nullptr, 100);
	EXPECT_EQ(memory.last_size, 100u);
	memset(block, 'x', 100);
	void *smallest = xrealloc(nullptr, 0);
	EXPECT_FALSE(is_null(smallest));
	EXPECT_EQ(memory.last_size, 1u);
	free(block);
	free(smallest);
}

TEST(xrealloc, without_memory_ends_the_process)
{
	for (size_t size : {size_t{0}, size_t{1000}})
		expect_out_of_memory([size] {
			void *block = xmalloc(10);
			memory.refuse_from(0);
			free(xrealloc(block, size));
		});
	expect_out_of_memory([] { free(xrealloc(xmalloc(10), SIZE_MAX)); });
}

TEST(xstrdup, gives_a_copy)
{
	for (const char *text : {"", "x", "a longer text"}) {
		char *copy = xstrdup(text);
		EXPECT_STREQ(copy, text);
		EXPECT_NE(copy, text);
		free(copy);
	}
}

TEST(xstrdup, without_memory_is_null)
{
	memory.refuse_from(0);
	char *copy = xstrdup("text");
	memory.grant();
	EXPECT_EQ(copy, nullptr);
}

TEST(xstrndup, gives_a_copy_of_at_most_so_many_bytes)
{
	struct {
		size_t length_max;
		const char *copy;
	} const cases[] = {{0, ""}, {1, "t"}, {3, "tex"}, {4, "text"}, {5, "text"}, {SIZE_MAX, "text"}};
	for (auto [length_max, expected] : cases) {
		char *copy = xstrndup("text", length_max);
		EXPECT_STREQ(copy, expected);
		free(copy);
	}
}

TEST(xstrndup, reads_no_byte_beyond_the_length)
{
	// The last bytes of memory that may be read, without a zero at their end.
	size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
	char *pages = static_cast<char *>(
		mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
	ASSERT_NE(static_cast<void *>(pages), MAP_FAILED);
	ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
	memcpy(pages + page - 3, "abc", 3);
	char *copy = xstrndup(pages + page - 3, 3);
	EXPECT_STREQ(copy, "abc");
	free(copy);
	munmap(pages, 2 * page);
}

TEST(xstrndup, without_memory_is_null)
{
	memory.refuse_from(0);
	char *copy = xstrndup("text", 2);
	memory.grant();
	EXPECT_EQ(copy, nullptr);
}
