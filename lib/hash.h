/*
 * hash - MD5 and SHA-256 of parts of files, MD5 of text, and digests as text.
 *
 * `digest` has room for 16 bytes (MD5) or 32 (SHA-256), and is written on success only. The digests are
 * made by mbedtls, whose error codes are passed on. Failures are logged at priority 3, by "md5: ..." for
 * SHA-256, too; that there is no text is not.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * The digest of `length` bytes from byte `offset` of an open file on. The file is mapped, not read: it
 * must be open for reading, its position stays, and nothing is copied. What cannot be read although it
 * is there (the file is made shorter meanwhile, or its device fails) ends this process (SIGBUS).
 *
 * Returns: 0; a negative errno if the part cannot be mapped, such as -ENXIO where it goes past the end of a
 *          regular file or a block device; or a negative code of mbedtls's. An empty part is mapped, too,
 *          and its digest made, except at a multiple of the page size, where there is nothing to map:
 *          -EINVAL.
 */
int md5_fd(int fd, unsigned offset, unsigned length, unsigned char *digest)
	__attribute__((warn_unused_result));
int sha256_fd(int fd, unsigned offset, unsigned length, unsigned char *digest)
	__attribute__((warn_unused_result));

/*
 * The MD5 of a text without its terminator. Returns 0, -1 if `str` is null, or a negative code of
 * mbedtls's.
 */
int hash_md5_str(const char *str, unsigned char *digest) __attribute__((warn_unused_result));

/*
 * The `length` bytes at `digest` as lower-case hexadecimal text, which the caller frees. Never null:
 * exhausted memory ends the process.
 */
char *hash_digest2str(const unsigned char *digest, unsigned length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
