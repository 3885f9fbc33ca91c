// Helpers of the tests of overlay: a kernel whose mounts are noted and can be refused, and a board in a
// disposable root. JFFS2, and the flash memory below it, is a stand-in; pivot_root and overlay are the kernel's own.
#pragma once
#include <array>

#include "lib/log.h"
#include "lib/overlay.h"
#include "tests/support/memory.h"
#include "tests/support/overlay_root.h"
#include "tests/support/syslog_messages.h"
#include "tests/support/system_calls.h"

namespace overlay_support
{

using namespace overlay_root;
using namespace support;

using lines = std::vector<std::string>;

inline lines operator+(lines first, const lines &second)
{
	first.insert(first.end(), second.begin(), second.end());
	return first;
}

// Memory for what a test itself does is not refused while this lives.
struct test_memory {
	int requests_left = std::exchange(memory.requests_left, -1);

	~test_memory() { memory.requests_left = requests_left; }
};

struct refusal {
	const char *type; // of the next file system that is not to be mounted
	int error;        // 0: it has been refused
};

// The kernel: what it was asked to mount and unmount, and what it is to refuse. Its JFFS2, if it has one, mounts
// what is at /flash, unless the file of the device holds noise.
struct noted_calls {
	lines calls;
	std::vector<int> errors;  // one a call; 0: it succeeded
	std::vector<size_t> said; // one a call: the messages before it
	std::array<refusal, 2> refusals;
	bool has_jffs2 = true;
};
inline noted_calls kernel;

inline void forget_calls()
{
	lines().swap(kernel.calls);
	std::vector<int>().swap(kernel.errors);
	std::vector<size_t>().swap(kernel.said);
}

inline constexpr char NOISE[] = "noise";

inline std::string shown(const void *text)
{
	return text ? static_cast<const char *>(text) : "null";
}

inline std::string shown_flags(unsigned long flags)
{
	if (flags == (MS_MOVE | MS_NOATIME))
		return "move,noatime";
	return flags == MS_NOATIME ? "noatime" : std::to_string(flags);
}

inline int note_call(const std::string &call, int result)
{
	kernel.calls.push_back(call);
	kernel.errors.push_back(result == 0 ? 0 : errno);
	kernel.said.push_back(messages.size());
	return result;
}

inline int mount_jffs2(const char *source, const char *target)
{
	if (read_file(std::string("/dev/") + source) != NOISE)
		return system_calls::mount.next("/flash", target, nullptr, MS_BIND, nullptr);
	errno = EINVAL;
	return -1;
}

inline bool refuses_mount(const char *type)
{
	for (refusal &next : kernel.refusals)
		if (next.error && shown(type) == next.type) {
			errno = std::exchange(next.error, 0);
			return true;
		}
	return false;
}

inline int refuse_or_mount(
	const char *source, const char *target, const char *type, unsigned long flags, const void *data)
{
	if (refuses_mount(type))
		return -1;
	if (kernel.has_jffs2 && shown(type) == "jffs2")
		return mount_jffs2(source, target);
	return system_calls::mount.next(source, target, type, flags, data);
}

inline auto noted_mount = system_calls::mount.replace(
	[](const char *source, const char *target, const char *type, unsigned long flags, const void *data) {
		test_memory unrefused;
		int result = refuse_or_mount(source, target, type, flags, data);
		return note_call("mount " + shown(source) + " " + shown(target) + " " + shown(type) + " " +
					 shown_flags(flags) + " " + shown(data),
			result);
	});

inline auto noted_umount = system_calls::umount.replace([](const char *target) {
	test_memory unrefused;
	return note_call("umount " + shown(target), system_calls::umount.next(target));
});

inline constexpr char ERASE_TOOL[] = "/usr/sbin/flash_eraseall";
inline constexpr char ERASED[] = "/tmp/erased"; // a line for each call of the tool
inline constexpr char ERASED_MTD5_ONCE[] = "/usr/sbin/flash_eraseall -jq /dev/mtd5, open: 0 1\n";

// An erase tool that notes how it was called, and which standard descriptors it has; then does as told.
inline void install_erase_tool(const std::string &ending)
{
	EXPECT_TRUE(write_program(
		ERASE_TOOL, "#!/bin/sh\n"
			    "open=\n"
			    "for fd in 0 1 2; do [ -e /proc/self/fd/$fd ] && open=\"$open $fd\"; done\n"
			    "echo \"$0 $*, open:$open\" >>" +
				    std::string(ERASED) + "\n" + ending + "\n"));
}

inline constexpr char ERASE[] = ": >$2";

inline void write_partitions(const std::string &text)
{
	EXPECT_TRUE(write_file("/proc/mtd", "dev:    size   erasesize  name\n" + text));
}

// A board with a good partition at mtd5, and an erase tool that works.
inline void install_board()
{
	write_partitions("mtd0: 00060000 00010000 \"u-boot\"\n"
			 "mtd5: 00790000 00010000 \"rootfs_data\"\n"
			 "mtd6: 00010000 00010000 \"EEPROM\"\n");
	EXPECT_TRUE(write_file("/dev/mtd5", ""));
	EXPECT_TRUE(mount_memory("/flash"));
	install_erase_tool(ERASE);
}

inline void install_nothing() {}

inline void install_noise()
{
	install_board();
	EXPECT_TRUE(write_file("/dev/mtd5", NOISE));
}

// Runs `body` in a child whose root is the tree that `install` has furnished.
inline void in_tree(void (*install)(), const std::function<void()> &body)
{
	expect_in_tree(install, [&] {
		int null = open("/dev/null", O_RDWR | O_CREAT | O_CLOEXEC, 0644); // only a file there
		dup2(null, STDIN_FILENO);
		close(null);
		log_open(LOG_DEST_SYSLOG, -1, "test");
		forget_calls();
		body();
	});
}

// What was logged, each line after its priority.
inline lines log_lines()
{
	lines found;
	for (const logged &message : messages)
		found.push_back(std::to_string(message.priority) + " " + message.text);
	return found;
}

inline const lines moves_after_pivot = {
	"mount /system/dev /dev null move,noatime null",
	"mount /system/tmp /tmp null move,noatime null",
	"mount /system/sys /sys null move,noatime null",
	"mount /system/data /data null move,noatime null",
};

} // namespace overlay_support
