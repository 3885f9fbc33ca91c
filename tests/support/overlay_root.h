// A disposable root for tests that change a process's root: in memory, read-only as a device's is, in a mount
// namespace that ends with the child that runs in it. Of the system it has only what busybox can do.
#pragma once
#include <sys/stat.h>
#include <sys/syscall.h>

#include <sstream>

#include "tests/support/support.h"

namespace overlay_root
{

// What /proc/self/mountinfo says of one mount.
struct mount_entry {
	int id = 0; // stays the same when it is moved
	std::string place, options, type, source, details;
};

inline mount_entry parse_mount(const std::string &line)
{
	mount_entry entry;
	std::string skipped;
	std::istringstream words(line);
	words >> entry.id >> skipped >> skipped >> skipped >> entry.place >> entry.options;
	while (words >> skipped && skipped != "-")
		;
	words >> entry.type >> entry.source >> entry.details;
	return entry;
}

// The mount at `place`, or one whose id is 0. `proc` is where /proc is.
inline mount_entry mount_at(const std::string &place, const std::string &proc = "/proc")
{
	std::istringstream lines(support::read_file(proc + "/self/mountinfo"));
	mount_entry found;
	for (std::string line; std::getline(lines, line);)
		if (mount_entry entry = parse_mount(line); entry.place == place)
			found = entry;
	return found;
}

// Whether `option` is among `options`, which commas separate.
inline bool has_option(const std::string &options, const std::string &option)
{
	return ("," + options + ",").find("," + option + ",") != std::string::npos;
}

inline bool exists(const std::string &path)
{
	return access(path.c_str(), F_OK) == 0;
}

inline mode_t mode_of(const std::string &path)
{
	struct stat about {
	};
	EXPECT_EQ(stat(path.c_str(), &about), 0) << path << ": " << strerror(errno);
	return about.st_mode & 07777;
}

// A file system of its own at `path`, which is made if need be; its source is named like its place.
inline bool mount_memory(const std::string &path)
{
	mkdir(path.c_str(), 0755);
	return mount(path.c_str(), path.c_str(), "tmpfs", 0, "mode=0755") == 0;
}

inline void make_directories(const std::string &where, const std::vector<std::string> &names)
{
	for (const std::string &name : names)
		EXPECT_EQ(mkdir((where + "/" + name).c_str(), 0755), 0) << name << ": " << strerror(errno);
}

inline bool write_program(const std::string &path, const std::string &content)
{
	return support::write_file(path, content) && chmod(path.c_str(), 0755) == 0;
}

// A /proc that a file can be put into: the kernel's is below it, and what is asked of it here links there.
inline bool mount_proc()
{
	if (!mount_memory("/proc"))
		return false;
	make_directories("/proc", {"kernel"});
	return symlink("kernel/self", "/proc/self") == 0 &&
	       mount("kernel", "/proc/kernel", "proc", 0, nullptr) == 0;
}

// Leaves the system's root. /tmp is only what the new one is mounted on.
inline bool enter_empty_root()
{
	if (mount("tree", "/tmp", "tmpfs", 0, "mode=0755") != 0 || chdir("/tmp") != 0)
		return false;
	make_directories(".", {"system"});
	return syscall(SYS_pivot_root, ".", "system") == 0 && chdir("/") == 0 &&
	       umount2("/system", MNT_DETACH) == 0;
}

// The directories and mounts that start-up finds, /data and /mnt empty, and a shell.
inline bool enter_tree()
{
	const std::string busybox = support::read_file("/bin/busybox");
	if (busybox.empty() || !enter_empty_root())
		return false;
	make_directories("", {"bin", "usr", "usr/sbin", "data", "mnt"});
	return write_program("/bin/busybox", busybox) && symlink("busybox", "/bin/sh") == 0 && mount_proc() &&
	       mount_memory("/dev") && mount_memory("/tmp") && mount_memory("/sys");
}

// Runs `body` in a child whose root is the tree, after `shape`, the last to write to that root.
inline void expect_in_tree(const std::function<void()> &shape, const std::function<void()> &body)
{
	support::expect_in_child([&] {
		ASSERT_TRUE(support::enter_private_namespaces()) << strerror(errno);
		ASSERT_TRUE(enter_tree()) << strerror(errno);
		shape();
		ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0)
			<< strerror(errno);
		body();
	});
}

} // namespace overlay_root
