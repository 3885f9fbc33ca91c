// Digests as text.
#include "tests/hash/digests.h"

#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "tests/support/memory.h"

using namespace hash_tests;
using namespace support;

using hash_digest2str_test = hash_test;

namespace
{

std::string taken(char *text)
{
	std::string copy = text;
	free(text);
	return copy;
}

} // namespace

TEST_F(hash_digest2str_test, writes_two_lower_case_digits_a_byte)
{
	const unsigned char digest[] = {0x00, 0x01, 0x0a, 0x10, 0xab, 0xff};
	EXPECT_EQ(taken(hash_digest2str(digest, 6)), "00010a10abff");
	EXPECT_EQ(taken(hash_digest2str(digest, 3)), "00010a");
}

TEST_F(hash_digest2str_test, writes_every_value)
{
	unsigned char digest[256];
	for (unsigned value = 0; value < 256; ++value)
		digest[value] = static_cast<unsigned char>(value);
	EXPECT_EQ(taken(hash_digest2str(digest, 256)), hex(digest, 256));
}

TEST_F(hash_digest2str_test, is_empty_for_no_bytes)
{
	const unsigned char digest[] = {0x12};
	EXPECT_EQ(taken(hash_digest2str(digest, 0)), "");
	EXPECT_EQ(taken(hash_digest2str(nullptr, 0)), "");
}

TEST_F(hash_digest2str_test, takes_any_length)
{
	std::string bytes = random_bytes(1'000'000);
	const unsigned char *digest = reinterpret_cast<const unsigned char *>(bytes.data());
	for (unsigned length : {1U, 2U, 16U, 20U, 32U, 33U, 64U, 1'000'000U})
		EXPECT_EQ(taken(hash_digest2str(digest, length)), hex(digest, length)) << length;
}

TEST_F(hash_digest2str_test, gives_a_text_of_its_own_each_time)
{
	const unsigned char one[] = {1}, two[] = {2};
	char *first = hash_digest2str(one, 1), *second = hash_digest2str(two, 1);
	EXPECT_EQ(taken(first), "01");
	EXPECT_EQ(taken(second), "02");
}

TEST_F(hash_digest2str_test, prints_what_the_digests_are)
{
	unsigned char digest[16];
	ASSERT_EQ(hash_md5_str("", digest), 0);
	EXPECT_EQ(taken(hash_digest2str(digest, 16)), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST_F(hash_digest2str_test, ends_the_process_without_memory)
{
	child_result result = run_child([] {
		const unsigned char digest[] = {1};
		set_app_name("hash-test");
		memory.refuse_from(0);
		hash_digest2str(digest, 1);
		memory.grant();
	});
	EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
	EXPECT_EQ(result.err, "hash-test: out of memory\n");
}

// How the process ends for a digest of `length` bytes without memory. On stdout is what it asked for last.
static child_result end_without_memory_for(unsigned length)
{
	return run_child([length] {
		signal(SIGABRT, [](int) { dprintf(1, "%#zx bytes", memory.last_size); });
		const unsigned char digest[] = {1};
		set_app_name("hash-test");
		memory.refuse_from(0);
		memory.last_size = 0;
		hash_digest2str(digest, length);
	});
}

TEST_F(hash_digest2str_test, asks_for_all_the_memory_that_the_longest_digests_take)
{
	const struct {
		unsigned length;
		const char *asked;
	} cases[] = {{0x7fffffff, "0xffffffff bytes"}, {0x80000000, "0x100000001 bytes"},
		{UINT_MAX, "0x1ffffffff bytes"}};
	for (const auto &c : cases) {
		child_result result = end_without_memory_for(c.length);
		bool fits = sizeof(size_t) > 4 || c.length < 0x80000000;
		EXPECT_EQ(result.out, fits ? c.asked : "0 bytes") << c.length;
		EXPECT_TRUE(result.killed_by(SIGABRT)) << result.report();
		EXPECT_EQ(result.err, "hash-test: out of memory\n");
	}
}
