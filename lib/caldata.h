/*
 * caldata - flash partitions by name, and calibration data copied from them to where drivers look for it.
 *
 * Calls are synchronous; failures are logged. A copy is made once, and survives where the root is
 * writable. Pointers must not be null unless a function says so.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Looks up a flash partition in /proc/mtd: the first line with a quote right after the first `name` in
 * it, so "data" finds "rootfs_data". A line is 255 characters at most.
 *
 * Returns:   its device, such as "mtd5" (in /dev); null if there is none.
 * Errors:    null: memory is exhausted, or /proc/mtd cannot be opened; only the latter is logged.
 * Ownership: the caller frees the text.
 */
char *find_mtd(const char *name) __attribute__((warn_unused_result));

/*
 * Copies `length` bytes from byte `offset` of a partition to /lib/firmware/<file>, unless there is such a
 * file. A directory in `file` must exist; a dangling link is followed.
 *
 * The file appears when it is whole and on the medium. Until then it is "_" in the same folder, a name
 * that `file` must not have; one left by a killed process is replaced by the folder's next call. A call
 * waits while another process makes a file in the folder.
 *
 * The slice must lie within the partition: at its end the call reads on for ever.
 *
 * Returns:   0, also if the file was there, whatever it holds.
 * Errors:    -ENOENT: no such partition; -1: a path over 4096 characters (one of exactly 4096 loses its
 *            last); else a negated errno of opening, seeking, reading or writing. Nothing of a file
 *            remains.
 */
int caldata_export(const char *file, const char *partition, unsigned offset, unsigned length);

/*
 * The same, with the 6 bytes at `mac` from byte 6 of the copy on; a shorter copy is extended. The file
 * appears with the address in it. No checksum is mended.
 *
 * Returns:   as caldata_export.
 * Errors:    as caldata_export; -EINVAL: no `mac`. If just the address cannot be written the file appears
 *            without it, or with a part of it, and the next call returns 0.
 */
int ath10k_caldata_patch(
	const char *file, const char *partition, const unsigned char *mac, unsigned offset, unsigned length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
