// The copy is made by read and write, without stdio in between: what does not fit on the file system is
// learnt of at the write that it fails, and the file can go.

#include "caldata.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal/owned.h"
#include "internal/path.h"
#include "log.h"

constexpr size_t CHUNK_BYTES_MAX = 512;
constexpr size_t MAC_BYTES = 6;
constexpr off_t MAC_OFFSET = 6;

// ---- Partitions ----

// Whether a line of /proc/mtd, `mtd5: 00010000 00010000 "EEPROM"`, is about the partition. On purpose nothing
// is asked of what stands before the name.
static bool names_partition(const char *line, const char *name)
{
	const char *found = strstr(line, name);
	return found && found[strlen(name)] == '"';
}

char *find_mtd(const char *name)
{
	owned_file file{fopen("/proc/mtd", "re")};
	if (!file.ok()) {
		_log(3, "unable to read /proc/mtd\n");
		return nullptr;
	}
	char line[256];
	while (fgets(line, sizeof line, file.get())) {
		const char *colon = strchr(line, ':');
		if (colon && names_partition(line, name))
			return xstrndup(line, static_cast<size_t>(colon - line));
	}
	return nullptr;
}

// ---- The copy ----

static int open_or_log(const char *path, int flags)
{
	int fd = open(path, flags | O_CLOEXEC, 0666);
	if (fd < 0)
		_log(3, "caldata: unable to open %s: err=-%d\n", path, errno);
	return fd;
}

// All of the bytes: a file system that runs full may take a part of them first. False with errno set.
static bool write_all(int fd, const unsigned char *bytes, size_t count)
{
	while (count > 0) {
		ssize_t written = write(fd, bytes, count);
		if (written == 0)
			errno = ENOSPC; // it takes no more, and does not say why
		if (written <= 0)
			return false;
		bytes += written;
		count -= static_cast<size_t>(written);
	}
	return true;
}

// Reports a failed step, and returns its negated errno.
static int failed(const char *step)
{
	int error = errno;
	_log(3, "caldata: %s error: err=-%d\n", step, error);
	return -error;
}

static int copy(int device, int target, size_t left)
{
	unsigned char chunk[CHUNK_BYTES_MAX];
	while (left > 0) { // on purpose for ever where the data ends too early
		ssize_t count = read(device, chunk, left < sizeof chunk ? left : sizeof chunk);
		if (count < 0)
			return failed("read");
		if (!write_all(target, chunk, static_cast<size_t>(count)))
			return failed("write");
		left -= static_cast<size_t>(count);
	}
	return 0;
}

static_assert(sizeof(off_t) > sizeof(unsigned)); // every offset is one

static int copy_slice(int device, int target, unsigned offset, unsigned length)
{
	if (lseek(device, static_cast<off_t>(offset), SEEK_SET) < 0)
		return -errno;
	return copy(device, target, length);
}

static int make_copy(const char *device_path, const char *path, unsigned offset, unsigned length)
{
	owned_fd device{open_or_log(device_path, O_RDONLY)};
	if (!device.ok())
		return -errno;
	owned_fd target{open_or_log(path, O_WRONLY | O_CREAT | O_TRUNC)};
	if (!target.ok())
		return -errno;
	int error = copy_slice(device.get(), target.get(), offset, length);
	target.take(-1);
	device.take(-1);
	if (error)
		unlink(path);
	return error;
}

// Also of a file that is shorter: it grows.
static int write_mac(const char *path, const unsigned char *mac)
{
	owned_fd target{open_or_log(path, O_WRONLY)};
	if (!target.ok())
		return -errno;
	if (lseek(target.get(), MAC_OFFSET, SEEK_SET) < 0 || !write_all(target.get(), mac, MAC_BYTES))
		return failed("write");
	return 0;
}

// 0, -ENOENT without such a partition, which is logged, or -1 if the path is too long.
static int find_device(char (&path)[PATH_BYTES], const char *partition)
{
	owned_text mtd{find_mtd(partition)};
	if (!mtd.ok()) {
		_log(3, "caldata: not found '%s' mtd partition\n", partition);
		return -ENOENT;
	}
	return format_path(path, "/dev/%s", mtd.get()) ? 0 : -1;
}

// Without a `mac` the copy stays as it is.
static int export_slice(
	const char *file, const char *partition, unsigned offset, unsigned length, const unsigned char *mac)
{
	char path[PATH_BYTES], device_path[PATH_BYTES];
	if (!format_path(path, "/lib/firmware/%s", file))
		return -1;
	struct stat about;
	if (stat(path, &about) == 0)
		return 0; // made on an earlier start, and never again
	int error = find_device(device_path, partition);
	if (!error)
		error = make_copy(device_path, path, offset, length);
	if (!error && mac)
		error = write_mac(path, mac);
	return error;
}

int caldata_export(const char *file, const char *partition, unsigned offset, unsigned length)
{
	return export_slice(file, partition, offset, length, nullptr);
}

int ath10k_caldata_patch(
	const char *file, const char *partition, const unsigned char *mac, unsigned offset, unsigned length)
{
	if (!mac) {
		_log(3, "caldata: the MAC address is not valid\n");
		return -EINVAL;
	}
	return export_slice(file, partition, offset, length, mac);
}
