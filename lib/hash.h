/*
 * hash - MD5 and SHA-256 of parts of files, MD5 of text, and digests as text.
 *
 * `digest` takes 16 bytes (MD5) or 32 (SHA-256), on success only. Failures of mbedtls are its negative
 * codes. Failures are logged as LOG_ERR, as "md5: ..." for SHA-256, too.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Digest `length` bytes of an open file from byte `offset` on. The file is mapped: it must be open for
 * reading, and its position stays. If it is cut meanwhile, or its device fails, SIGBUS ends the process.
 *
 * Returns:   0.
 * Errors:    a negative errno if the part cannot be mapped: -ENXIO: it goes past the end of a regular
 *            file or block device; -EINVAL: an empty part at a multiple of the page size (elsewhere it
 *            has a digest). A code of mbedtls.
 */
int md5_fd(int fd, unsigned offset, unsigned length, unsigned char *digest)
	__attribute__((warn_unused_result));
int sha256_fd(int fd, unsigned offset, unsigned length, unsigned char *digest)
	__attribute__((warn_unused_result));

/*
 * Digests a text without its terminator.
 *
 * Returns:   0.
 * Errors:    -1, not logged: `str` is null. A code of mbedtls.
 */
int hash_md5_str(const char *str, unsigned char *digest) __attribute__((warn_unused_result));

/*
 * Writes `length` bytes as lower-case hexadecimal text.
 *
 * Returns:   the text, never null: exhausted memory ends the process.
 * Ownership: the caller frees it.
 */
char *hash_digest2str(const unsigned char *digest, unsigned length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
