/*
 * caldata - flash partitions by name, and calibration data copied from them to where drivers look for it.
 *
 * Radio drivers load their calibration data as files of /lib/firmware, but the data is in a raw flash
 * partition. A slice of it is copied once: the files survive where the root file system is writable.
 * Every call is synchronous, and failures are logged. Pointers must not be null unless a function says so.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * The device of the flash partition called `name`, by /proc/mtd, such as "mtd5" (in /dev).
 * Only the end is compared: a line matches if a quote comes right behind the first place in it where
 * `name` stands, so "data" finds "rootfs_data". The first line that matches counts; of each 255
 * characters are looked at.
 *
 * Returns text that the caller frees, or null, also if memory is exhausted. Only a /proc/mtd that cannot
 * be opened is logged.
 */
char *find_mtd(const char *name) __attribute__((warn_unused_result));

/*
 * Copies `length` bytes from byte `offset` of a partition to /lib/firmware/<file>, unless there is
 * such a file already; a directory in `file` must be there. A link to a file that is not there stays, and
 * that file is made.
 *
 * The file appears when it is whole and on the medium. Until then the copy is called "_", in the same
 * folder; `file` must not be called so. A process that is killed may leave that one: the next call for a
 * file of the folder removes it, and starts anew. A call waits while another process makes a file in the
 * same folder.
 *
 * Returns: 0, also if the file was there already, whatever it holds; -ENOENT without such a partition; -1
 *          if the path is longer than 4096 characters (one of exactly 4096 is tried without its
 *          last character); else a negated errno of opening, seeking, reading or writing. Then there is
 *          no file, and no part of one.
 *
 * The slice must lie within the partition. It is no error if reading comes to an end of the
 * data: the call goes on reading for ever.
 */
int caldata_export(const char *file, const char *partition, unsigned offset, unsigned length);

/*
 * The same, and writes the 6 bytes at `mac` over those from byte 6 of the copy on; a shorter copy is
 * extended. The file appears with the address in it. No checksum in the data is mended.
 *
 * Returns: as caldata_export; -EINVAL without `mac`. If only the address cannot be written,
 *          the file appears without it, or with a part of it: the next call finds it and returns 0.
 */
int ath10k_caldata_patch(
	const char *file, const char *partition, const unsigned char *mac, unsigned offset, unsigned length);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
