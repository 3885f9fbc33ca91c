// A copy gets its name when it is whole: it is made under another name in the same folder, flushed to the
// medium and renamed. Whoever makes one locks it, so a copy without a lock was left by a process that has ended.
// Copies are written without stdio in between, so that a full disk fails the write.

#include "caldata.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal/owned.h"
#include "internal/path.h"
#include "log.h"

constexpr size_t CHUNK_BYTES_MAX = 512;
constexpr size_t MAC_BYTES = 6;
constexpr off_t MAC_OFFSET = 6;
constexpr char UNFINISHED[] = "_"; // a copy in the making; its path is never longer than the file's own
constexpr int LINKS_MAX = 40;      // the kernel follows no more

// ---- Partitions ----

// Whether a line of /proc/mtd, `mtd5: 00010000 00010000 "EEPROM"`, is about the partition. What stands
// before the name does not matter: compatibility, partition names
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

// Reports a file that could not be opened or made, and returns the negated errno.
static int not_opened(const char *path)
{
	int error = errno;
	_log(3, "caldata: unable to open %s: err=-%d\n", path, error);
	return -error;
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
	while (left > 0) { // for ever where it ends too early: compatibility, short partition
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

// ---- A file that appears whole ----

// The file that a path leads to, and its unfinished copy.
struct place {
	char target[PATH_BYTES];
	char unfinished[PATH_BYTES];
};

// Where the name begins. Every path here is absolute.
static char *name_in(char *path)
{
	return strrchr(path, '/') + 1;
}

// Of an error with a path: nothing is there, which is no reason yet why a file could not be made.
static bool is_missing(int error)
{
	return error == ENOENT || error == ENOTDIR;
}

static bool exists(const char *path)
{
	struct stat about;
	return stat(path, &about) == 0;
}

// Makes `path` the path of what the link there points to. False with errno set; EINVAL: it is no link.
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

// Follows a link to a file that is not there, which may be another link. False with errno set.
static bool follow_links(char (&path)[PATH_BYTES])
{
	for (int links = 0; links <= LINKS_MAX; links++)
		if (!follow_link(path))
			return errno == EINVAL || is_missing(errno);
	errno = ELOOP;
	return false;
}

// Finds where the file is to be made. False with errno set: the error that making it at `path` would meet.
static bool find_place(place *p, const char *path)
{
	if (!exists(path) && !is_missing(errno))
		return false;
	format_path(p->target, "%s", path);
	if (!follow_links(p->target))
		return false;
	const char *name = name_in(p->target);
	int folder_length = static_cast<int>(name - p->target);
	// Without a name there can be no file: the kernel says why, when it is opened.
	snprintf(p->unfinished, sizeof p->unfinished, "%.*s%s", folder_length, p->target,
		*name ? UNFINISHED : "");
	return true;
}

// Waits for the lock of an open file, as long as another process makes the copy in it.
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

// Removes what stands in the way of an unfinished copy, except for a copy that another process finishes
// meanwhile. False with errno set.
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

// A new file with a lock of ours. -1 with errno set.
static int create_unfinished(const char *path)
{
	while (true) {
		owned_fd file{open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)};
		if (file.ok()) {
			lock(file.get());
			if (is_at(file.get(), path)) // else another process took it for a leftover
				return file.give();
		} else if (errno != EEXIST || !remove_unfinished(path)) {
			return -1;
		}
	}
}

static bool flush(int fd)
{
	return fsync(fd) == 0 || errno == EINVAL; // a file system that has nothing to flush to
}

// Flushes the folder of `path`, which is cut off there. If that fails, the worst is that the next start finds
// no file, and makes it again.
static void flush_folder(char *path)
{
	*name_in(path) = '\0';
	owned_fd folder{open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
	if (folder.ok())
		flush(folder.get());
}

// Extends a file that is too short. An error is about `path`, the file's name to be.
static int write_mac(const char *unfinished, const char *path, const unsigned char *mac)
{
	owned_fd file{open(unfinished, O_WRONLY | O_CLOEXEC)};
	if (!file.ok())
		return not_opened(path);
	if (lseek(file.get(), MAC_OFFSET, SEEK_SET) < 0 || !write_all(file.get(), mac, MAC_BYTES))
		return failed("write");
	return 0;
}

// Gives the copy its name, with the bytes on the medium.
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
	// The file appears, too, if only the address could not be written: compatibility, copy without address
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
		_log(3, "caldata: the MAC address is not valid\n");
		return -EINVAL;
	}
	return export_slice(file, partition, offset, length, mac);
}
