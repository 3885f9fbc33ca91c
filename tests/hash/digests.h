// The calls of mbedtls that make a digest, and a fixture that looks after them.
#pragma once
#include "lib/hash.h"

#include <mbedtls/md.h>
#include <stdint.h>
#include <stdio.h>

#include <random>
#include <string>
#include <vector>

#include "lib/log.h"
#include "tests/support/support.h"
#include "tests/support/syslog_messages.h"

namespace hash_tests
{

using namespace support;

// A part of a file in memory, as the kernel has it.
struct mapped {
	uintptr_t begin, end;
	std::string access; // "r--p"
	uint64_t offset;
};

// The calls of mbedtls, noted on their way. One of them can be made to fail, and the digest itself be left out.
struct digest_calls {
	std::string failing; // the step that does
	bool without_digest; // nothing is read
	std::string path;    // whose mappings are looked at

	std::string calls;
	mbedtls_md_type_t type;
	int hmac;
	const unsigned char *bytes; // of the last update
	size_t length;
	std::vector<mapped> mappings; // during it
	int contexts;                 // that have not been freed
};
inline digest_calls md;

inline std::mt19937 numbers(20240607); // the same ones in every run

inline std::string random_bytes(size_t count)
{
	std::string bytes(count, '\0');
	for (char &byte : bytes)
		byte = static_cast<char>(numbers());
	return bytes;
}

inline std::string hex(const unsigned char *bytes, unsigned length)
{
	std::string text;
	char digits[3];
	for (unsigned index = 0; index < length; ++index) {
		snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(bytes[index]));
		text += digits;
	}
	return text;
}

// Fails a test that leaves a descriptor open or a digest's context in use.
class hash_test : public descriptor_test
{
protected:
	void SetUp() override
	{
		log_open(LOG_DEST_SYSLOG, LOG_DAEMON, nullptr);
		messages.clear();
		md = {};
		descriptor_test::SetUp();
	}
	void TearDown() override
	{
		EXPECT_EQ(md.contexts, 0);
		descriptor_test::TearDown();
	}
};

} // namespace hash_tests
