// Helpers of the tests of caldata: calls of the file system that a test watches, what is logged, and limits.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "lib/caldata.h"
#include "tests/support/board.h"

namespace caldata_support
{

using namespace board_support;

// Called before and after each unlink, rename, fsync and flock, with its name and its file's path before it.
inline std::function<void(const std::string &call, const std::string &path)> on_call;

template <typename F>
int reported(const std::string &call, const std::string &path, F make)
{
	if (on_call)
		on_call(call, path);
	int result = make();
	int saved_errno = errno;
	if (on_call)
		on_call(call + " done", path);
	errno = saved_errno;
	return result;
}

inline auto reported_unlink = system_calls::unlink.replace([](const char *path) {
	return reported("unlink", path, [&] { return system_calls::unlink.next(path); });
});
inline auto reported_rename = system_calls::rename.replace([](const char *path, const char *new_path) {
	return reported("rename", path, [&] { return system_calls::rename.next(path, new_path); });
});
inline auto reported_fsync = system_calls::fsync.replace([](int fd) {
	return reported("fsync", descriptor_target(fd), [&] { return system_calls::fsync.next(fd); });
});
inline auto reported_flock = system_calls::flock.replace([](int fd, int operation) {
	return reported(
		"flock", descriptor_target(fd), [&] { return system_calls::flock.next(fd, operation); });
});

inline const char *const no_table = "unable to read /proc/mtd\n";
inline const char *const no_partition = "caldata: not found 'EEPROM' mtd partition\n";
inline const std::string firmware = "/lib/firmware/";
inline const std::string unfinished = "_"; // a copy in the making
inline const unsigned char mac[6] = {0x00, 0xff, 0x80, 0x0a, 0x25, 0x7f};
inline const std::string mac_bytes(reinterpret_cast<const char *>(mac), sizeof(mac));

inline std::string unable_to_open(const std::string &path, int error)
{
	return "caldata: unable to open " + path + ": err=-" + std::to_string(error) + "\n";
}

inline int export_all(const std::string &file, unsigned length)
{
	return caldata_export(file.c_str(), "EEPROM", 0, length);
}

inline int patch_all(const std::string &file, unsigned length)
{
	return ath10k_caldata_patch(file.c_str(), "EEPROM", mac, 0, length);
}

// From here on, writing beyond `bytes` of a file is an error, and not a signal.
inline void limit_file_size(rlim_t bytes)
{
	signal(SIGXFSZ, SIG_IGN);
	rlimit limit{bytes, bytes};
	require(setrlimit(RLIMIT_FSIZE, &limit) == 0, "a limit");
}

// Only `count` more descriptors can be opened while `body` runs.
inline void with_descriptors(int count, const std::function<void()> &body)
{
	rlimit before;
	require(getrlimit(RLIMIT_NOFILE, &before) == 0, "the limit");
	rlimit limit{static_cast<rlim_t>(*open_descriptors().rbegin() + 1 + count), before.rlim_max};
	std::vector<owned_fd> gaps;
	while (true) {
		owned_fd fd{open("/", O_PATH | O_CLOEXEC)};
		if (fd.get() >= static_cast<int>(limit.rlim_cur) - count)
			break;
		gaps.push_back(std::move(fd));
	}
	require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "a limit");
	body();
	require(setrlimit(RLIMIT_NOFILE, &before) == 0, "the old limit");
}

// A file name that makes a path of `length` characters in /lib/firmware; its last part is `name`.
inline std::string padded(const std::string &name, size_t length)
{
	return std::string(length - firmware.size() - name.size(), '/') + name;
}

} // namespace caldata_support
