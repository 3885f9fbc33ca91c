// What the tests of the board share: the fixed paths as empty file systems of the test's own, what is logged,
// and what is read and written. A program that includes this is linked with test_system_calls.
#pragma once
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <random>

#include "lib/log.h"
#include "tests/support/support.h"
#include "tests/support/syslog_messages.h"

namespace board_support
{

using namespace support;

// ---- Reads and writes ----

// One call of read or write.
struct transfer {
	bool is_read;
	std::string path; // what it was made on
	size_t requested;
	ssize_t count;       // what it returned
	std::string bytes;   // that were read or written
	bool closed_on_exec; // its descriptor
	int access;          // of that, O_WRONLY for instance
};

using transfer_call = std::function<void(const transfer &)>;

// Calls `call` after each read and write that `body` makes; not after those that `call` makes itself.
inline void watch_transfers(const transfer_call &call, const std::function<void()> &body)
{
	bool reporting = false;
	auto report = [&](bool is_read, int fd, const void *bytes, size_t requested, ssize_t count) {
		if (std::exchange(reporting, true))
			return count;
		int saved_errno = errno;
		std::string seen(
			static_cast<const char *>(bytes), count > 0 ? static_cast<size_t>(count) : 0);
		call({is_read, descriptor_target(fd), requested, count, seen, is_closed_on_exec(fd),
			fcntl(fd, F_GETFL) & O_ACCMODE});
		reporting = false;
		errno = saved_errno;
		return count;
	};
	auto reads = system_calls::read.replace([&](int fd, void *bytes, size_t count) {
		return report(true, fd, bytes, count, system_calls::read.next(fd, bytes, count));
	});
	auto writes = system_calls::write.replace([&](int fd, const void *bytes, size_t count) {
		return report(false, fd, bytes, count, system_calls::write.next(fd, bytes, count));
	});
	body();
}

inline std::vector<transfer> transfers_of(const std::function<void()> &body)
{
	std::vector<transfer> seen;
	watch_transfers([&](const transfer &each) { seen.push_back(each); }, body);
	return seen;
}

// ---- The fixed paths ----

// Ends the child that cannot prepare its test: what follows would meet the machine's own files.
inline void require(bool prepared, const std::string &what)
{
	if (prepared)
		return;
	ADD_FAILURE() << what << ": " << strerror(errno);
	fflush(nullptr);
	_exit(1);
}

inline void make_directory(const std::string &path)
{
	require(mkdir(path.c_str(), 0755) == 0, path);
}

inline void make_file(const std::string &path, const std::string &bytes)
{
	require(write_file(path, bytes), path);
}

// An empty file system over what is at `path`.
inline void mount_tmpfs(const std::string &path, const std::string &options = "mode=755")
{
	require(mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) == 0, "a tmpfs on " + path);
}

// Makes a directory that this machine may lack, where no other process sees it: in an overlay on its parent.
inline void have_directory(const std::string &parent, const std::string &name)
{
	if (access((parent + "/" + name).c_str(), F_OK) == 0)
		return;
	mount_tmpfs("/mnt");
	make_directory("/mnt/upper");
	make_directory("/mnt/work");
	const std::string options = "lowerdir=" + parent + ",upperdir=/mnt/upper,workdir=/mnt/work";
	require(mount("overlay", parent.c_str(), "overlay", 0, options.c_str()) == 0,
		"an overlay on " + parent);
	require(umount2("/mnt", MNT_DETACH) == 0, "to uncover /mnt");
	make_directory(parent + "/" + name);
}

// /proc with files of the test's own, in which this process still finds itself.
inline void mount_proc()
{
	mount_tmpfs("/proc");
	make_directory("/proc/kernel");
	require(mount("proc", "/proc/kernel", "proc", 0, nullptr) == 0, "a /proc");
	for (const std::string &name : {std::string("self"), std::to_string(getpid())})
		require(symlink(("kernel/" + name).c_str(), ("/proc/" + name).c_str()) == 0, name);
}

// Runs `body` with its expectations in a child in which /dev, /proc, /sys/class and /lib/firmware are empty
// and there is no network, and what is logged comes to `messages`. Descriptors and memory that it leaves
// behind fail the test.
inline void on_bare_board(const std::function<void()> &body)
{
	expect_in_child([&] {
		require(enter_private_namespaces(), "namespaces");
		mount_proc();
		have_directory("/lib", "firmware");
		for (const char *path : {"/dev", "/sys/class", "/lib/firmware"})
			mount_tmpfs(path);
		umask(022);
		log_open(LOG_DEST_SYSLOG, LOG_DAEMON, "board");
		std::set<int> before = open_descriptors();
		body();
		EXPECT_EQ(open_descriptors(), before);
		expect_no_leak();
	});
}

// The names in a directory.
inline std::set<std::string> names_in(const std::string &directory)
{
	std::set<std::string> names;
	for (const auto &entry : std::filesystem::directory_iterator(directory))
		names.insert(entry.path().filename());
	return names;
}

inline bool exists(const std::string &path)
{
	struct stat about;
	return lstat(path.c_str(), &about) == 0;
}

// ---- Flash ----

// A /proc/mtd with these partitions, mtd0 first.
inline std::string partition_table(const std::vector<std::string> &names)
{
	std::string text = "dev:    size   erasesize  name\n";
	for (size_t index = 0; index < names.size(); ++index)
		text += "mtd" + std::to_string(index) + ": 00010000 00010000 \"" + names[index] + "\"\n";
	return text;
}

// The same bytes in every run.
inline std::string random_bytes(size_t count)
{
	std::mt19937 generator(static_cast<unsigned>(count));
	std::string bytes(count, '\0');
	for (char &byte : bytes)
		byte = static_cast<char>(generator());
	return bytes;
}

// Flash in which mtd1 is called "EEPROM" and holds `bytes`.
inline void make_flash(const std::string &bytes)
{
	make_file("/proc/mtd", partition_table({"u-boot", "EEPROM", "rootfs"}));
	make_file("/dev/mtd0", "not the one");
	make_file("/dev/mtd1", bytes);
	make_file("/dev/mtd2", "not the one either");
}

// ---- Messages ----

// These lines, each at error level.
inline std::vector<logged> errors(const std::vector<std::string> &lines)
{
	std::vector<logged> expected;
	for (const std::string &line : lines)
		expected.push_back({LOG_ERR, line});
	return expected;
}

// For the failure messages of tests.
inline void PrintTo(const transfer &each, std::ostream *out)
{
	*out << (each.is_read ? "read " : "write ") << each.path << " " << each.requested << " -> "
	     << each.count;
}

} // namespace board_support

inline void PrintTo(const logged &message, std::ostream *out)
{
	*out << "<" << message.priority << ">" << message.text;
}
