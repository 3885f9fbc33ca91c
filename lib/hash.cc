// Digests by mbedtls. The part of a file is mapped and digested in one update, so that no buffer bounds its length.

#include "hash.h"

#include <errno.h>
#include <linux/fs.h>
#include <mbedtls/md.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "log.h"

// ---- One digest ----

// The text that each step logs before the error code when it fails.
struct step_texts {
	const char *setup, *start, *update, *finish;
	const char *end; // ends the lines of all steps but the first
};

// "md5" for every digest of a file, a line feed in the first line only: compatibility, texts of digests
static constexpr step_texts FILE_TEXTS = {"md5: fail to setup md5 digest", "md5: fail to start md5 digest",
	"md5: fail to make md5 digest", "md5: fail to make md5 digest", ""};
static constexpr step_texts STRING_TEXTS = {"md: fail to setup digest", "md: fail to start digest",
	"md: fail to update digest", "md: fail to finish digest", "\n"};

static int failed(const char *text, int code, const char *end)
{
	_log(LOG_ERR, "%s: %d%s", text, code, end);
	return code;
}

static int run_steps(mbedtls_md_context_t *context, const unsigned char *bytes, size_t length,
	unsigned char *digest, const step_texts &texts)
{
	int code = mbedtls_md_starts(context);
	if (code)
		return failed(texts.start, code, texts.end);
	code = mbedtls_md_update(context, bytes, length);
	if (code)
		return failed(texts.update, code, texts.end);
	code = mbedtls_md_finish(context, digest);
	if (code)
		return failed(texts.finish, code, texts.end);
	return 0;
}

static int make_digest(mbedtls_md_type_t type, const unsigned char *bytes, size_t length,
	unsigned char *digest, const step_texts &texts)
{
	constexpr int NO_HMAC = 0;
	mbedtls_md_context_t context;
	mbedtls_md_init(&context);
	int code = mbedtls_md_setup(&context, mbedtls_md_info_from_type(type), NO_HMAC);
	if (code)
		failed(texts.setup, code, "\n");
	else
		code = run_steps(&context, bytes, length, digest, texts);
	mbedtls_md_free(&context); // also after a failed setup, which may have allocated
	return code;
}

// ---- A part of a file ----

// The size of a regular file or a block device; of anything else, UINT64_MAX.
static uint64_t size_of(int fd)
{
	struct stat about;
	uint64_t size;
	if (fstat(fd, &about) != 0)
		return UINT64_MAX;
	if (S_ISREG(about.st_mode))
		return static_cast<uint64_t>(about.st_size);
	// ioctl takes an int in one C library and an unsigned long in another; the kernel uses 32 bits.
	constexpr int request = static_cast<int>(BLKGETSIZE64);
	return S_ISBLK(about.st_mode) && ioctl(fd, request, &size) == 0 ? size : UINT64_MAX;
}

// A part of a file, mapped from the start of its page on: `skip_` bytes earlier.
class mapping
{
	void *start_ = MAP_FAILED;
	size_t size_ = 0;
	size_t skip_ = 0;

	void drop()
	{
		if (ok())
			munmap(start_, size_);
		start_ = MAP_FAILED;
	}

public:
	mapping(int fd, unsigned offset, unsigned length)
	{
		skip_ = offset % static_cast<unsigned>(sysconf(_SC_PAGESIZE));
		if (__builtin_add_overflow(skip_, length, &size_)) {
			errno = ENOMEM; // as mmap fails with a size that is too large
			return;
		}
		start_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, static_cast<off_t>(offset - skip_));
		// Past the end of the file its last page reads as zeros, and the pages after it fault.
		if (ok() && uint64_t{offset} + length > size_of(fd)) {
			drop();
			errno = ENXIO;
		}
	}
	mapping(const mapping &) = delete;
	mapping &operator=(const mapping &) = delete;
	~mapping() { drop(); }
	bool ok() const { return start_ != MAP_FAILED; } // else errno says why
	const unsigned char *bytes() const { return static_cast<const unsigned char *>(start_) + skip_; }
};

static int digest_fd(mbedtls_md_type_t type, int fd, unsigned offset, unsigned length, unsigned char *digest)
{
	mapping part{fd, offset, length};
	if (!part.ok()) {
		int error = errno;
		_log(LOG_ERR, "md5: fail to mmap fd: err=-%d\n", error);
		return -error;
	}
	return make_digest(type, part.bytes(), length, digest, FILE_TEXTS);
}

int md5_fd(int fd, unsigned offset, unsigned length, unsigned char *digest)
{
	return digest_fd(MBEDTLS_MD_MD5, fd, offset, length, digest);
}

int sha256_fd(int fd, unsigned offset, unsigned length, unsigned char *digest)
{
	return digest_fd(MBEDTLS_MD_SHA256, fd, offset, length, digest);
}

// ---- Text ----

int hash_md5_str(const char *str, unsigned char *digest)
{
	if (!str)
		return -1;
	return make_digest(MBEDTLS_MD_MD5, reinterpret_cast<const unsigned char *>(str), strlen(str), digest,
		STRING_TEXTS);
}

char *hash_digest2str(const unsigned char *digest, unsigned length)
{
	size_t size;
	if (__builtin_mul_overflow(length, 2U, &size) || __builtin_add_overflow(size, 1U, &size))
		out_of_memory();
	char *text = static_cast<char *>(xmalloc(size));
	for (unsigned index = 0; index < length; index++)
		snprintf(text + size_t{2} * index, 3, "%02x", digest[index]);
	text[size - 1] = '\0';
	return text;
}
