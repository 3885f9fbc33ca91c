// Digests of parts of files and of text, held against the system's md5sum and sha256sum, and every step's
// failure.
#include "tests/hash/digests.h"

#include <linux/loop.h>
#include <memory>
#include <sys/mman.h>
#include <sys/resource.h>

#include <gmock/gmock.h>

#include "tests/support/interposed.h"
#include "tests/support/memory.h"

using namespace hash_tests;
using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

static std::vector<mapped> mappings_of(const std::string &path)
{
	std::vector<mapped> found;
	FILE *maps = fopen("/proc/self/maps", "re");
	char line[4096], access[8];
	while (maps && fgets(line, sizeof(line), maps)) {
		unsigned long begin, end;
		unsigned long long offset;
		if (strstr(line, path.c_str()) &&
			sscanf(line, "%lx-%lx %7s %llx", &begin, &end, access, &offset) == 4)
			found.push_back({begin, end, access, offset});
	}
	if (maps)
		fclose(maps);
	return found;
}

static constexpr int failure_code = -12345;

static constinit interposed<void(mbedtls_md_context_t *)> md_init{"mbedtls_md_init"};
static constinit interposed<int(mbedtls_md_context_t *, const mbedtls_md_info_t *, int)> md_setup{
	"mbedtls_md_setup"};
static constinit interposed<mbedtls_md_type_t(const mbedtls_md_info_t *)> md_get_type{"mbedtls_md_get_type"};
static constinit interposed<int(mbedtls_md_context_t *)> md_starts{"mbedtls_md_starts"};
static constinit interposed<int(mbedtls_md_context_t *, const unsigned char *, size_t)> md_update{
	"mbedtls_md_update"};
static constinit interposed<int(mbedtls_md_context_t *, unsigned char *)> md_finish{"mbedtls_md_finish"};
static constinit interposed<void(mbedtls_md_context_t *)> md_free{"mbedtls_md_free"};

static bool fails(const char *step)
{
	md.calls += std::string(step) + " ";
	return md.failing == step;
}

extern "C" {
void mbedtls_md_init(mbedtls_md_context_t *context)
{
	md.calls += "init ";
	md.contexts++;
	md_init.next(context);
}

int mbedtls_md_setup(mbedtls_md_context_t *context, const mbedtls_md_info_t *info, int hmac)
{
	md.type = md_get_type.next(info);
	md.hmac = hmac;
	if (fails("setup"))
		return failure_code;
	return md_setup.next(context, info, hmac);
}

int mbedtls_md_starts(mbedtls_md_context_t *context)
{
	if (fails("starts"))
		return failure_code;
	return md_starts.next(context);
}

int mbedtls_md_update(mbedtls_md_context_t *context, const unsigned char *bytes, size_t length)
{
	md.bytes = bytes;
	md.length = length;
	if (!md.path.empty())
		md.mappings = mappings_of(md.path);
	if (fails("update"))
		return failure_code;
	if (md.without_digest)
		return 0;
	return md_update.next(context, bytes, length);
}

int mbedtls_md_finish(mbedtls_md_context_t *context, unsigned char *digest)
{
	if (fails("finish"))
		return failure_code;
	return md_finish.next(context, digest);
}

void mbedtls_md_free(mbedtls_md_context_t *context)
{
	md.calls += "free ";
	md.contexts--;
	md_free.next(context);
}
}

namespace
{

const unsigned page = static_cast<unsigned>(sysconf(_SC_PAGESIZE));

// A kind of digest: the function, and the system's command.
struct kind {
	const char *name;
	int (*digest_fd)(int, unsigned, unsigned, unsigned char *);
	const char *command;
	unsigned size;
	mbedtls_md_type_t type;
	const char *of_nothing;
};

const kind kinds[] = {{"md5", md5_fd, "md5sum", 16, MBEDTLS_MD_MD5, "d41d8cd98f00b204e9800998ecf8427e"},
	{"sha256", sha256_fd, "sha256sum", 32, MBEDTLS_MD_SHA256,
		"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"}};

// A file that is gone with its owner.
class temporary_file
{
	char name_[32] = "/tmp/apbase-hash-XXXXXX";

public:
	const owned_fd fd;
	explicit temporary_file(const std::string &bytes = "") : fd(mkostemp(name_, O_CLOEXEC))
	{
		EXPECT_TRUE(write_all(fd.get(), bytes)) << strerror(errno);
	}
	temporary_file(const temporary_file &) = delete;
	temporary_file &operator=(const temporary_file &) = delete;
	~temporary_file() { unlink(name_); }
	std::string path() const { return name_; }
	int operator*() const { return fd.get(); }
};

// A block device of `before` zeros and then `bytes`. It goes with its last descriptor.
class block_device
{
	owned_fd fd_;

	// Makes `file` what is on a device that nobody else uses; whether it could be had.
	bool attach(int file)
	{
		owned_fd control{open("/dev/loop-control", O_RDWR | O_CLOEXEC)};
		loop_config config{};
		config.fd = static_cast<__u32>(file);
		config.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
		for (int attempt = 0; attempt < 100; ++attempt) {
			int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
			if (number < 0)
				return false;
			path = "/dev/loop" + std::to_string(number);
			fd_.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
			if (fd_.get() < 0)
				return false;
			if (ioctl(fd_.get(), LOOP_CONFIGURE, &config) == 0)
				return true;
			if (errno != EBUSY) // else another has come first
				return false;
		}
		return false;
	}

public:
	std::string path;
	std::string reason; // that there is none

	block_device(const std::string &bytes, off_t before)
	{
		temporary_file file;
		EXPECT_EQ(pwrite(*file, bytes.data(), bytes.size(), before),
			static_cast<ssize_t>(bytes.size()));
		if (!attach(*file))
			reason = "no loop device: " + path + ": " + strerror(errno);
	}
	int operator*() const { return fd_.get(); }
};

std::string first_word(const std::string &text)
{
	return text.substr(0, text.find(' '));
}

std::string digest_by_system(const kind &k, const std::string &bytes)
{
	temporary_file file(bytes);
	return first_word(must_run(std::string(k.command) + " " + file.path()));
}

// A digest's place, with what must stay as it is around it.
struct place {
	static constexpr unsigned char untouched = 0xa5;
	unsigned char before[8], digest[32], after[8];

	place() { memset(this, untouched, sizeof(*this)); }
	bool is_untouched_from(unsigned first) const
	{
		for (unsigned index = first; index < sizeof(digest); ++index)
			if (digest[index] != untouched)
				return false;
		for (unsigned char byte : before)
			if (byte != untouched)
				return false;
		for (unsigned char byte : after)
			if (byte != untouched)
				return false;
		return true;
	}
};

// The digest as text, or the code in brackets when there is none; nothing else may have been written.
std::string answer(const kind &k, int fd, unsigned offset, unsigned length)
{
	place where;
	int code = k.digest_fd(fd, offset, length, where.digest);
	EXPECT_TRUE(where.is_untouched_from(code ? 0 : k.size)) << k.name << " " << offset << " " << length;
	return code ? "(" + std::to_string(code) + ")" : hex(where.digest, k.size);
}

std::string answer_to_text(const char *text)
{
	place where;
	int code = hash_md5_str(text, where.digest);
	EXPECT_TRUE(where.is_untouched_from(code ? 0 : 16));
	return code ? "(" + std::to_string(code) + ")" : hex(where.digest, 16);
}

std::string error(int number)
{
	return "(-" + std::to_string(number) + ")";
}

// The error for what is too long, and would not fit into 32 bits of address space.
const int past_4_gibibytes = sizeof(size_t) > 4 ? ENXIO : ENOMEM;

logged map_report(int number)
{
	return {3, "md5: fail to mmap fd: err=-" + std::to_string(number) + "\n"};
}

using digest_fd = hash_test;
using hash_md5_str_test = hash_test;

void expect_same_as_system(const kind &k, const std::string &bytes, int fd, unsigned offset, unsigned length)
{
	EXPECT_EQ(answer(k, fd, offset, length), digest_by_system(k, bytes.substr(offset, length)))
		<< k.name << " of " << length << " bytes from " << offset;
}

// Asks for a part that cannot be mapped.
void expect_refused(int fd, unsigned offset, unsigned length, int number)
{
	for (const kind &k : kinds) {
		messages.clear();
		EXPECT_EQ(answer(k, fd, offset, length), error(number))
			<< k.name << " " << offset << " " << length;
		EXPECT_THAT(messages, ElementsAre(map_report(number)));
		EXPECT_EQ(md.calls, "") << "no digest is begun";
	}
}

} // namespace

// ---- Parts of files ----

TEST_F(digest_fd, is_that_of_the_whole_file)
{
	std::string bytes = random_bytes(3 * page + 123);
	temporary_file file(bytes);
	for (const kind &k : kinds)
		EXPECT_EQ(answer(k, *file, 0, 3 * page + 123),
			first_word(must_run(k.command + (" " + file.path()))));
	EXPECT_THAT(messages, IsEmpty());
}

TEST_F(digest_fd, starts_at_any_offset)
{
	std::string bytes = random_bytes(3 * page + 123);
	temporary_file file(bytes);
	for (const kind &k : kinds)
		for (unsigned offset : {1U, 7U, page - 1, page, page + 1, 2 * page - 1, 2 * page,
			     3 * page - 1, 3 * page, 3 * page + 1, 3 * page + 122})
			expect_same_as_system(k, bytes, *file, offset, 3 * page + 123 - offset);
}

TEST_F(digest_fd, ends_at_any_length)
{
	std::string bytes = random_bytes(3 * page + 123);
	temporary_file file(bytes);
	for (const kind &k : kinds)
		for (unsigned offset : {0U, 5U, page})
			for (unsigned length :
				{1U, 55U, 56U, 63U, 64U, 65U, page - 5, page - 1, page, page + 1, 2 * page})
				expect_same_as_system(k, bytes, *file, offset, length);
}

TEST_F(digest_fd, is_right_for_random_parts)
{
	std::string bytes = random_bytes(5 * page + 77);
	temporary_file file(bytes);
	for (int round = 0; round < 60; ++round) {
		unsigned offset = static_cast<unsigned>(numbers() % bytes.size());
		unsigned length = static_cast<unsigned>(1 + numbers() % (bytes.size() - offset));
		expect_same_as_system(kinds[round % 2], bytes, *file, offset, length);
	}
	EXPECT_THAT(messages, IsEmpty());
}

TEST_F(digest_fd, is_right_for_a_large_file)
{
	std::string bytes = random_bytes(3'000'001);
	temporary_file file(bytes);
	for (const kind &k : kinds)
		expect_same_as_system(k, bytes, *file, 999, 2'900'000);
}

TEST_F(digest_fd, of_an_empty_part_is_that_of_nothing_inside_a_page)
{
	std::string bytes = random_bytes(page + 100);
	temporary_file file(bytes);
	for (const kind &k : kinds)
		for (unsigned offset : {1U, page - 1, page + 1, page + 99, page + 100})
			EXPECT_EQ(answer(k, *file, offset, 0), k.of_nothing) << offset;
	EXPECT_THAT(messages, IsEmpty());
}

TEST_F(digest_fd, of_an_empty_part_fails_where_a_page_begins)
{
	temporary_file file(random_bytes(2 * page));
	for (unsigned offset : {0U, page, 2 * page})
		expect_refused(*file, offset, 0, EINVAL);
	temporary_file empty;
	expect_refused(*empty, 0, 0, EINVAL);
}

TEST_F(digest_fd, refuses_what_goes_past_the_end_of_the_file)
{
	temporary_file file(random_bytes(2 * page + 100));
	expect_refused(*file, 0, 2 * page + 101, ENXIO); // in the last page
	expect_refused(*file, 0, 3 * page, ENXIO);
	expect_refused(*file, 2 * page + 50, 51, ENXIO);
	expect_refused(*file, 2 * page + 100, 1, ENXIO);
	expect_refused(*file, 2 * page + 101, 0, ENXIO);
	expect_refused(*file, 2 * page, page + 1, ENXIO); // in the next page
	expect_refused(*file, 9 * page, 1, ENXIO);
	expect_refused(*file, 9 * page + 1, 5, ENXIO);
	expect_refused(*file, UINT_MAX, 1, ENXIO);
	expect_refused(*file, 1, UINT_MAX, past_4_gibibytes); // their sum is 0 in 32 bits
	expect_refused(*file, UINT_MAX, UINT_MAX, past_4_gibibytes);
	temporary_file empty;
	expect_refused(*empty, 0, 1, ENXIO);
}

TEST_F(digest_fd, sees_the_file_as_it_is_now)
{
	temporary_file file("before");
	EXPECT_EQ(answer(kinds[0], *file, 0, 6), digest_by_system(kinds[0], "before"));
	ASSERT_EQ(pwrite(*file, "after!", 6, 0), 6);
	EXPECT_EQ(answer(kinds[0], *file, 0, 6), digest_by_system(kinds[0], "after!"));
	ASSERT_EQ(ftruncate(*file, 3), 0);
	EXPECT_EQ(answer(kinds[0], *file, 0, 6), error(ENXIO));
	EXPECT_EQ(answer(kinds[0], *file, 0, 3), digest_by_system(kinds[0], "aft"));
}

TEST_F(digest_fd, leaves_the_position_of_the_file)
{
	temporary_file file(random_bytes(page + 100));
	for (const kind &k : kinds)
		for (off_t position : {off_t{0}, off_t{7}, off_t{page}, off_t{9} * page}) {
			ASSERT_EQ(lseek(*file, position, SEEK_SET), position);
			answer(k, *file, 3, page);
			EXPECT_EQ(lseek(*file, 0, SEEK_CUR), position);
		}
}

TEST_F(digest_fd, needs_a_descriptor_that_is_open_for_reading)
{
	temporary_file file("text");
	owned_fd writing{open(file.path().c_str(), O_WRONLY | O_CLOEXEC)};
	owned_fd reading{open(file.path().c_str(), O_RDONLY | O_CLOEXEC)};
	owned_fd neither{open(file.path().c_str(), O_PATH | O_CLOEXEC)};
	expect_refused(writing.get(), 0, 4, EACCES);
	expect_refused(neither.get(), 0, 4, EBADF);
	EXPECT_EQ(answer(kinds[0], reading.get(), 0, 4), digest_by_system(kinds[0], "text"));
}

TEST_F(digest_fd, needs_a_descriptor_that_is_open_for_reading_also_past_the_end)
{
	temporary_file file("text");
	owned_fd writing{open(file.path().c_str(), O_WRONLY | O_CLOEXEC)};
	owned_fd neither{open(file.path().c_str(), O_PATH | O_CLOEXEC)};
	for (unsigned offset : {0U, 4U, 5U, page, UINT_MAX}) {
		expect_refused(writing.get(), offset, 2 * page, EACCES);
		expect_refused(neither.get(), offset, 2 * page, EBADF);
	}
}

TEST_F(digest_fd, gives_back_what_it_has_mapped_past_the_end)
{
	temporary_file file(random_bytes(page + 100));
	for (unsigned length : {101U, page, 5 * page, 999 * page})
		for (unsigned offset : {0U, 1U, page, page + 100, page + 101, 3 * page})
			if (offset + length > page + 100) {
				expect_refused(*file, offset, length, ENXIO);
				EXPECT_THAT(mappings_of(file.path()), IsEmpty()) << offset << " " << length;
			}
}

TEST_F(digest_fd, fails_on_a_closed_descriptor)
{
	owned_fd closed{open("/dev/null", O_RDONLY | O_CLOEXEC)};
	int number = closed.get();
	closed.reset();
	expect_refused(number, 0, 4, EBADF);
	expect_refused(-1, 0, 4, EBADF);
}

TEST_F(digest_fd, fails_on_what_cannot_be_mapped)
{
	pipe_pair pipe;
	socket_pair sockets;
	owned_fd folder{open("/tmp", O_RDONLY | O_CLOEXEC)};
	for (int fd : {pipe.read_end.get(), sockets.near.get(), folder.get()})
		expect_refused(fd, 0, 4, ENODEV);
}

TEST_F(digest_fd, fails_on_a_file_without_a_size_that_cannot_be_mapped)
{
	owned_fd status{open("/proc/self/status", O_RDONLY | O_CLOEXEC)};
	for (unsigned offset : {0U, 1U, page, UINT_MAX})
		expect_refused(status.get(), offset, 4, ENODEV);
	expect_refused(status.get(), 1, 0, ENODEV);
}

TEST_F(digest_fd, reads_a_block_device_up_to_its_end)
{
	std::string bytes = random_bytes(2 * page + 512);
	block_device device(bytes, 0);
	if (!device.reason.empty())
		GTEST_SKIP() << device.reason;
	for (const kind &k : kinds) {
		expect_same_as_system(k, bytes, *device, 0, 2 * page + 512);
		expect_same_as_system(k, bytes, *device, 2 * page + 511, 1);
		expect_same_as_system(k, bytes, *device, page - 1, page + 513);
		EXPECT_EQ(answer(k, *device, 2 * page + 512, 0), k.of_nothing);
	}
	EXPECT_THAT(messages, IsEmpty());
}

TEST_F(digest_fd, refuses_what_goes_past_the_end_of_a_block_device)
{
	block_device device(random_bytes(2 * page + 512), 0);
	if (!device.reason.empty())
		GTEST_SKIP() << device.reason;
	expect_refused(*device, 0, 2 * page + 513, ENXIO); // in the last page
	expect_refused(*device, 0, 3 * page, ENXIO);
	expect_refused(*device, 2 * page + 512, 1, ENXIO);
	expect_refused(*device, 2 * page + 513, 0, ENXIO);
	expect_refused(*device, 2 * page, page + 1, ENXIO); // in the next page
	expect_refused(*device, 9 * page, 1, ENXIO);
	expect_refused(*device, UINT_MAX, 1, ENXIO);
	expect_refused(*device, 1, UINT_MAX, past_4_gibibytes); // their sum is 0 in 32 bits
	EXPECT_THAT(mappings_of(device.path), IsEmpty());
}

TEST_F(digest_fd, knows_the_end_of_a_block_device_behind_32_bits)
{
	std::string bytes = random_bytes(2 * page + 512);
	block_device device(bytes, (off_t{1} << 32) - page);
	if (!device.reason.empty())
		GTEST_SKIP() << device.reason;
	for (const kind &k : kinds) {
		EXPECT_EQ(answer(k, *device, 0U - page, 2 * page + 512), digest_by_system(k, bytes));
		EXPECT_EQ(answer(k, *device, UINT_MAX, page + 513),
			digest_by_system(k, bytes.substr(page - 1)));
	}
	md.calls.clear();
	expect_refused(*device, 0U - page, 2 * page + 513, ENXIO);
	expect_refused(*device, UINT_MAX, page + 514, ENXIO);
	EXPECT_THAT(mappings_of(device.path), IsEmpty());
}

TEST_F(digest_fd, takes_a_device_that_can_be_mapped)
{
	owned_fd zeros{open("/dev/zero", O_RDONLY | O_CLOEXEC)};
	for (const kind &k : kinds)
		EXPECT_EQ(answer(k, zeros.get(), 3, 5000), digest_by_system(k, std::string(5000, '\0')));
}

TEST_F(digest_fd, reaches_the_end_of_32_bits)
{
	temporary_file file;
	const off_t end = off_t{1} << 32;
	std::string bytes = random_bytes(2 * page + 10);
	ASSERT_EQ(pwrite(*file, bytes.data(), bytes.size(), end - 2 * page),
		static_cast<ssize_t>(bytes.size()));
	const unsigned last_page = 0U - page;
	for (const kind &k : kinds) {
		EXPECT_EQ(answer(k, *file, last_page, page), digest_by_system(k, bytes.substr(page, page)));
		EXPECT_EQ(answer(k, *file, UINT_MAX, 1), digest_by_system(k, bytes.substr(2 * page - 1, 1)));
		EXPECT_EQ(answer(k, *file, last_page - 1, 5), digest_by_system(k, bytes.substr(page - 1, 5)));
	}
}

TEST_F(digest_fd, goes_on_behind_32_bits)
{
	temporary_file file;
	std::string bytes = random_bytes(2 * page);
	ASSERT_EQ(pwrite(*file, bytes.data(), bytes.size(), (off_t{1} << 32) - page),
		static_cast<ssize_t>(bytes.size()));
	for (const kind &k : kinds) {
		EXPECT_EQ(answer(k, *file, 0U - page, 2 * page), digest_by_system(k, bytes));
		EXPECT_EQ(answer(k, *file, UINT_MAX, page + 1), digest_by_system(k, bytes.substr(page - 1)));
	}
	messages.clear();
	md.calls.clear();
	expect_refused(*file, UINT_MAX, page + 2, ENXIO);
}

TEST_F(digest_fd, maps_the_part_from_the_start_of_its_page_and_no_more)
{
	temporary_file file(random_bytes(6 * page));
	md.path = file.path();
	for (unsigned offset : {0U, 1U, page - 1, page, page + 17, 3 * page})
		for (unsigned length : {1U, page - 1, page, page + 1, 2 * page}) {
			ASSERT_EQ(md5_fd(*file, offset, length, place().digest), 0);
			unsigned skip = offset % page;
			unsigned pages = (skip + length + page - 1) / page;
			ASSERT_EQ(md.mappings.size(), 1U);
			EXPECT_EQ(md.mappings[0].access, "r--p");
			EXPECT_EQ(md.mappings[0].offset, offset - skip);
			EXPECT_EQ(md.mappings[0].end - md.mappings[0].begin, size_t{pages} * page);
			EXPECT_EQ(reinterpret_cast<uintptr_t>(md.bytes), md.mappings[0].begin + skip);
			EXPECT_EQ(md.length, length);
		}
}

TEST_F(digest_fd, maps_more_than_32_bits_can_count)
{
	if constexpr (sizeof(size_t) > 4) {
		temporary_file file;
		ASSERT_EQ(ftruncate(*file, (off_t{1} << 32) + page), 0);
		md.path = file.path();
		md.without_digest = true;
		ASSERT_EQ(sha256_fd(*file, page - 1, UINT_MAX, place().digest), 0);
		ASSERT_EQ(md.mappings.size(), 1U);
		EXPECT_EQ(md.mappings[0].end - md.mappings[0].begin, (uint64_t{1} << 32) + page);
		EXPECT_EQ(md.length, UINT_MAX);
		EXPECT_EQ(reinterpret_cast<uintptr_t>(md.bytes), md.mappings[0].begin + page - 1);
		EXPECT_THAT(mappings_of(file.path()), IsEmpty());
	} else {
		temporary_file file;
		ASSERT_EQ(ftruncate(*file, (off_t{1} << 32) + page), 0);
		expect_refused(*file, page - 1, UINT_MAX, ENOMEM);
	}
}

TEST_F(digest_fd, fails_when_there_is_no_room_for_the_mapping)
{
	temporary_file file;
	ASSERT_EQ(ftruncate(*file, (off_t{1} << 32) - 1), 0);
	rlimit before;
	ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
	// Enough for everything else; a sanitizer needs some, too.
	const rlim_t in_use = strtoull(read_file("/proc/self/statm").c_str(), nullptr, 10) * page;
	rlimit less{in_use + (1 << 30), before.rlim_max};
	place where;
	ASSERT_EQ(setrlimit(RLIMIT_AS, &less), 0);
	int code = md5_fd(*file, 0, UINT_MAX, where.digest);
	setrlimit(RLIMIT_AS, &before);
	EXPECT_EQ(code, -ENOMEM);
	EXPECT_TRUE(where.is_untouched_from(0));
	EXPECT_THAT(messages, ElementsAre(map_report(ENOMEM)));
}

TEST_F(digest_fd, takes_one_update_over_all_of_the_part)
{
	temporary_file file(random_bytes(100 * page));
	for (const kind &k : kinds) {
		md.calls.clear();
		answer(k, *file, 9, 99 * page);
		EXPECT_EQ(md.calls, "init setup starts update finish free ");
		EXPECT_EQ(md.length, 99 * page);
		EXPECT_EQ(md.type, k.type);
		EXPECT_EQ(md.hmac, 0);
	}
}

TEST_F(digest_fd, leaves_no_mapping_whatever_happens)
{
	temporary_file file(random_bytes(2 * page));
	for (const kind &k : kinds) {
		for (const char *step : {"", "setup", "starts", "update", "finish"}) {
			md.failing = step;
			answer(k, *file, 5, page);
			EXPECT_THAT(mappings_of(file.path()), IsEmpty()) << k.name << " " << step;
		}
		md.failing = "";
		answer(k, *file, 0, 3 * page);
		answer(k, *file, 0, 0);
		EXPECT_THAT(mappings_of(file.path()), IsEmpty());
	}
}

TEST_F(digest_fd, reports_each_step_that_fails)
{
	const std::string code = std::to_string(failure_code);
	const struct {
		const char *step;
		std::string text;
		const char *calls;
	} cases[] = {{"setup", "md5: fail to setup md5 digest: " + code + "\n", "init setup free "},
		{"starts", "md5: fail to start md5 digest: " + code, "init setup starts free "},
		{"update", "md5: fail to make md5 digest: " + code, "init setup starts update free "},
		{"finish", "md5: fail to make md5 digest: " + code, "init setup starts update finish free "}};
	temporary_file file("text");
	for (const kind &k : kinds)
		for (const auto &c : cases) {
			md = {};
			md.failing = c.step;
			messages.clear();
			EXPECT_EQ(answer(k, *file, 0, 4), "(" + code + ")") << k.name << " " << c.step;
			EXPECT_THAT(messages, ElementsAre(logged{3, c.text}));
			EXPECT_EQ(md.calls, c.calls);
		}
}

TEST_F(digest_fd, fails_in_its_setup_when_memory_is_exhausted)
{
	temporary_file file("text");
	child_result result = run_child([&] {
		log_open(LOG_DEST_STDIO, LOG_DAEMON, nullptr);
		md.calls.reserve(1000);
		place where;
		memory.refuse_from(0);
		int code = sha256_fd(*file, 0, 4, where.digest);
		memory.grant();
		EXPECT_EQ(code, MBEDTLS_ERR_MD_ALLOC_FAILED);
		EXPECT_TRUE(where.is_untouched_from(0));
	});
	EXPECT_TRUE(result.exited_with(0)) << result.report();
	EXPECT_EQ(result.err,
		"md5: fail to setup md5 digest: " + std::to_string(MBEDTLS_ERR_MD_ALLOC_FAILED) + "\n");
}

TEST_F(digest_fd, works_after_a_failure)
{
	temporary_file file("text");
	for (const char *step : {"setup", "starts", "update", "finish"}) {
		md.failing = step;
		answer(kinds[0], *file, 0, 4);
		md.failing = "";
		EXPECT_EQ(answer(kinds[0], *file, 0, 4), digest_by_system(kinds[0], "text"));
	}
}

// ---- Text ----

TEST_F(hash_md5_str_test, is_the_digest_of_the_text_without_its_terminator)
{
	const struct {
		const char *text, *digest;
	} known[] = {{"", "d41d8cd98f00b204e9800998ecf8427e"}, {"a", "0cc175b9c0f1b6a831c399e269772661"},
		{"abc", "900150983cd24fb0d6963f7d28e17f72"},
		{"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
		{"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
		{"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
			"d174ab98d277d9f5a5611c2c9f419d9f"},
		{"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
			"57edf4a22be3c955ac49da2e2107b67a"}};
	for (const auto &k : known)
		EXPECT_EQ(answer_to_text(k.text), k.digest) << k.text;
	EXPECT_THAT(messages, IsEmpty());
}

TEST_F(hash_md5_str_test, agrees_with_the_system_for_any_text)
{
	for (size_t length :
		{1UL, 54UL, 55UL, 56UL, 57UL, 63UL, 64UL, 65UL, 119UL, 120UL, 128UL, 1'000'000UL}) {
		std::string text = random_bytes(length);
		std::replace(text.begin(), text.end(), '\0', '\1');
		EXPECT_EQ(answer_to_text(text.c_str()), digest_by_system(kinds[0], text)) << length;
	}
	std::string all;
	for (int value = 1; value < 256; ++value)
		all += static_cast<char>(value);
	EXPECT_EQ(answer_to_text(all.c_str()), digest_by_system(kinds[0], all));
}

TEST_F(hash_md5_str_test, ends_at_the_first_zero)
{
	EXPECT_EQ(answer_to_text("abc\0def"), answer_to_text("abc"));
}

TEST_F(hash_md5_str_test, fails_quietly_without_a_text)
{
	EXPECT_EQ(answer_to_text(nullptr), "(-1)");
	EXPECT_THAT(messages, IsEmpty());
	EXPECT_EQ(md.calls, "");
}

TEST_F(hash_md5_str_test, takes_one_update)
{
	std::string text(100'000, 'x');
	answer_to_text(text.c_str());
	EXPECT_EQ(md.calls, "init setup starts update finish free ");
	EXPECT_EQ(md.length, text.size());
	EXPECT_EQ(md.bytes, reinterpret_cast<const unsigned char *>(text.c_str()));
	EXPECT_EQ(md.type, MBEDTLS_MD_MD5);
	EXPECT_EQ(md.hmac, 0);
}

TEST_F(hash_md5_str_test, reports_each_step_that_fails)
{
	const std::string code = std::to_string(failure_code);
	const struct {
		const char *step, *text, *calls;
	} cases[] = {{"setup", "md: fail to setup digest: ", "init setup free "},
		{"starts", "md: fail to start digest: ", "init setup starts free "},
		{"update", "md: fail to update digest: ", "init setup starts update free "},
		{"finish", "md: fail to finish digest: ", "init setup starts update finish free "}};
	for (const auto &c : cases) {
		md = {};
		md.failing = c.step;
		messages.clear();
		EXPECT_EQ(answer_to_text("text"), "(" + code + ")") << c.step;
		EXPECT_THAT(messages, ElementsAre(logged{3, c.text + code + "\n"}));
		EXPECT_EQ(md.calls, c.calls);
	}
}
