// Calibration data, copied from flash memory to a file. The file appears whole, or not at all.
//
// The copy is written under the name "_" in the same folder, flushed to the medium, and renamed. Its process locks
// it, so a copy without a lock was left by a process that has ended. It is written without stdio, so that a full disk
// fails the write.

#include "caldata.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/invariant.h"
#include "internal/owned.h"
#include "internal/path.h"
#include "log.h"

constexpr size_t CHUNK_BYTES_MAX = 512;
constexpr size_t MAC_BYTES = 6;
constexpr off_t MAC_OFFSET = 6;
constexpr char UNFINISHED[] = "_"; // one character: its path is never longer than that of the file
constexpr int LINKS_MAX = 40;      // the kernel follows no more

// ---- Partitions ----

// Whether a line of /proc/mtd, `mtd5: 00010000 00010000 "EEPROM"`, names the partition, or another one whose name
// ends in this name: compatibility, partition names
static bool names_partition(const char *line, const char *name)
{
	const char *found = strstr(line, name);
	return found && found[strlen(name)] == '"';
}

char *find_mtd(const char *name)
{
	owned_file file{fopen("/proc/mtd", "re")};
	if (!file.ok()) {
		_log(LOG_ERR, "unable to read /proc/mtd\n");
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

// Reports a file that could not be opened or made, and returns the negated errno.
static int not_opened(const char *path)
{
	int error = errno;
	_log(LOG_ERR, "caldata: unable to open %s: err=-%d\n", path, error);
	return -error;
}

// Writes all bytes; a file system that fills up may first take a part of them. False with errno set.
static bool write_all(int fd, const unsigned char *bytes, size_t count)
{
	while (count > 0) {
		ssize_t written = write(fd, bytes, count);
		if (written == 0)
			errno = ENOSPC; // it takes no more, but reports no error
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
	_log(LOG_ERR, "caldata: %s error: err=-%d\n", step, error);
	return -error;
}

static int copy(int device, int target, size_t left)
{
	unsigned char chunk[CHUNK_BYTES_MAX];
	while (left > 0) { // for ever, if the device ends before that: compatibility, short partition
		ssize_t count = read(device, chunk, left < sizeof chunk ? left : sizeof chunk);
		if (count < 0)
			return failed("read");
		invariant(static_cast<size_t>(count) <= left); // no more is read than is left to copy
		if (!write_all(target, chunk, static_cast<size_t>(count)))
			return failed("write");
		left -= static_cast<size_t>(count);
	}
	return 0;
}

static_assert(sizeof(off_t) > sizeof(unsigned)); // so every `offset` is a valid off_t

static int copy_slice(int device, int target, unsigned offset, unsigned length)
{
	if (lseek(device, static_cast<off_t>(offset), SEEK_SET) < 0)
		return -errno;
	return copy(device, target, length);
}

// ---- A file that appears whole ----

// The file that a path leads to, and its unfinished copy.
struct place {
	char target[PATH_BYTES];
	char unfinished[PATH_BYTES];
};

// The last name in the path; empty after a final "/".
static char *name_in(char *path)
{
	char *slash = strrchr(path, '/');
	invariant(slash); // paths stay absolute, whatever links they have been replaced by
	return slash + 1;
}

// Whether the error says only that nothing is there: a file may still be made.
static bool is_missing(int error)
{
	return error == ENOENT || error == ENOTDIR;
}

static bool exists(const char *path)
{
	struct stat about;
	return stat(path, &about) == 0;
}

// Replaces `path`, a link, by the path it points to. False with errno set; EINVAL: it is no link.
static bool follow_link(char (&path)[PATH_BYTES])
{
	char link[PATH_BYTES];
	ssize_t length = readlink(path, link, sizeof link);
	if (length < 0)
		return false;
	char *end = link[0] == '/' ? path : name_in(path);
	if (length >= path + sizeof path - end) {
		errno = ENAMETOOLONG;
		return false;
	}
	memcpy(end, link, static_cast<size_t>(length));
	end[length] = '\0';
	return true;
}

// Follows links to the file, which need not exist. False with errno set.
static bool follow_links(char (&path)[PATH_BYTES])
{
	for (int links = 0; links <= LINKS_MAX; links++)
		if (!follow_link(path))
			return errno == EINVAL || is_missing(errno);
	errno = ELOOP;
	return false;
}

// Finds where the file is to be made. False with errno set, to the error of making it at `path`.
static bool find_place(place *p, const char *path)
{
	if (!exists(path) && !is_missing(errno))
		return false;
	format_path(p->target, "%s", path);
	if (!follow_links(p->target))
		return false;
	const char *name = name_in(p->target);
	int folder_length = static_cast<int>(name - p->target);
	// A path that ends in "/" stays as it is: opening it fails, with the kernel's reason.
	int length = snprintf(p->unfinished, sizeof p->unfinished, "%.*s%s", folder_length, p->target,
		*name ? UNFINISHED : "");
	invariant(length < PATH_BYTES); // it was not cut off, and so is no other file
	return true;
}

// Locks an open file, and waits while another process makes its copy there.
static void lock(int fd)
{
	while (flock(fd, LOCK_EX) < 0 && errno == EINTR) {}
}

static bool is_at(int fd, const char *path)
{
	struct stat mine, there;
	return fstat(fd, &mine) == 0 && lstat(path, &there) == 0 && mine.st_dev == there.st_dev &&
	       mine.st_ino == there.st_ino;
}

// Removes a leftover. If another process is making its copy there, waits for it, and removes nothing that has been
// renamed meanwhile. False with errno set.
static bool remove_unfinished(const char *path)
{
	owned_fd file{open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
	if (file.ok()) {
		lock(file.get());
		if (!is_at(file.get(), path))
			return true;
	}
	return unlink(path) == 0 || errno == ENOENT;
}

// Makes a file and locks it. Returns -1 with errno set.
static int create_unfinished(const char *path)
{
	while (true) {
		owned_fd file{open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)};
		if (file.ok()) {
			lock(file.get());
			if (is_at(file.get(), path)) // else another process has taken it for a leftover
				return file.give();
		} else if (errno != EEXIST || !remove_unfinished(path)) {
			return -1;
		}
	}
}

static bool flush(int fd)
{
	return fsync(fd) == 0 || errno == EINVAL; // EINVAL: this file system has no medium
}

// Flushes the folder of `path`, and cuts `path` off there. A failure does no harm: if the file is lost, the next
// start makes it again.
static void flush_folder(char *path)
{
	*name_in(path) = '\0';
	owned_fd folder{open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
	if (folder.ok())
		flush(folder.get());
}

// Extends a file that is too short. Errors are logged with `path`, the name it will have.
static int write_mac(const char *unfinished, const char *path, const unsigned char *mac)
{
	owned_fd file{open(unfinished, O_WRONLY | O_CLOEXEC)};
	if (!file.ok())
		return not_opened(path);
	if (lseek(file.get(), MAC_OFFSET, SEEK_SET) < 0 || !write_all(file.get(), mac, MAC_BYTES))
		return failed("write");
	return 0;
}

// Flushes the copy to the medium, then gives it its name.
static int publish(int fd, const place *p, const char *path)
{
	if (!flush(fd))
		return failed("write");
	return rename(p->unfinished, p->target) < 0 ? not_opened(path) : 0;
}

static int make_copy(
	const char *device_path, const char *path, unsigned offset, unsigned length, const unsigned char *mac)
{
	owned_fd device{open(device_path, O_RDONLY | O_CLOEXEC)};
	if (!device.ok())
		return not_opened(device_path);
	place p;
	if (!find_place(&p, path))
		return not_opened(path);
	owned_fd copy{create_unfinished(p.unfinished)};
	if (!copy.ok())
		return not_opened(path);
	if (exists(path)) { // another process has finished it meanwhile
		unlink(p.unfinished);
		return 0;
	}
	int error = copy_slice(device.get(), copy.get(), offset, length);
	device.reset();
	// The file also appears if only the address could not be written: compatibility, copy without address
	int mac_error = !error && mac ? write_mac(p.unfinished, path, mac) : 0;
	if (!error)
		error = publish(copy.get(), &p, path);
	if (error) {
		unlink(p.unfinished);
		return error;
	}
	flush_folder(p.target);
	return mac_error;
}

// Returns 0; -ENOENT, which is logged, if there is no such partition; or -1 if the path is too long.
static int find_device(char (&path)[PATH_BYTES], const char *partition)
{
	owned_text mtd{find_mtd(partition)};
	if (!mtd.ok()) {
		_log(LOG_ERR, "caldata: not found '%s' mtd partition\n", partition);
		return -ENOENT;
	}
	return format_path(path, "/dev/%s", mtd.get()) ? 0 : -1;
}

// A null `mac` leaves the address of the partition in the copy.
static int export_slice(
	const char *file, const char *partition, unsigned offset, unsigned length, const unsigned char *mac)
{
	char path[PATH_BYTES], device_path[PATH_BYTES];
	if (!format_path(path, "/lib/firmware/%s", file))
		return -1;
	if (exists(path))
		return 0; // made on an earlier start, and never again
	int error = find_device(device_path, partition);
	if (!error)
		error = make_copy(device_path, path, offset, length, mac);
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
		_log(LOG_ERR, "caldata: the MAC address is not valid\n");
		return -EINVAL;
	}
	return export_slice(file, partition, offset, length, mac);
}
