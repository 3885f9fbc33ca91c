// Makes a read-only root writable. Whatever fails on the way, an overlay is tried at the end, in memory if flash memory
// fails: a device that does not start cannot be repaired over the network.

#include "overlay.h"

#include <errno.h>
#include <initializer_list>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include "caldata.h"
#include "internal/owned.h"
#include "log.h"
#include "utils.h"

// Two parts of a path, joined. A longer path is cut: compatibility, cut paths
struct joined_path {
	char text[64];

	joined_path(const char *first, const char *second)
	{
		snprintf(text, sizeof text, "%s%s", first, second);
	}
};

// ---- The root ----

static int mount_move(const char *prefix_from, const char *prefix_to, const char *dir)
{
	joined_path source{prefix_from, dir}, target{prefix_to, dir};
	if (mount(source.text, target.text, nullptr, MS_MOVE | MS_NOATIME, nullptr) == 0)
		return 0;
	int error = errno;
	_log(LOG_ERR, "mount_move err %s %s %s: err=-%d\n", prefix_from, prefix_to, dir, error);
	return -error;
}

static int swap_roots(const char *new_root, const char *put_old)
{
	int result = static_cast<int>(syscall(SYS_pivot_root, new_root, put_old));
	if (result < 0)
		_log(LOG_ERR, "root pivoting failed: err=-%d\n", errno);
	return result;
}

int pivot(const char *new_root, const char *put_old)
{
	int error = mount_move("", new_root, "/proc");
	if (error)
		return error;
	error = swap_roots(new_root, joined_path{new_root, put_old}.text);
	if (error < 0)
		return error;
	for (const char *dir : {"/dev", "/tmp", "/sys", "/data"})
		mount_move(put_old, "", dir); // compatibility, moves unchecked
	return 0;
}

// ---- The overlay ----

// Mounts the overlay at /mnt: the root below, `dir` above it.
static int mount_layers(const char *dir)
{
	char label[64], options[256];
	joined_path upper{dir, "/upper"}, work{dir, "/work"};
	snprintf(label, sizeof label, "overlayfs:%s", dir);
	snprintf(options, sizeof options, "lowerdir=/,upperdir=%s,workdir=%s", upper.text, work.text);
	mkdir(upper.text, 0755);
	mkdir(work.text, 0755);
	return mount(label, "/mnt", "overlay", MS_NOATIME, options);
}

// Makes an overlay with its upper layer in `dir` the root. Returns 0 or -1.
static int set_up_overlay(const char *dir)
{
	if (mount_layers(dir) != 0) {
		_log(LOG_ERR, "overlayfs mount failed: err=-%d\n", errno);
		return -1;
	}
	if (pivot("/mnt", "/system") != 0) {
		_log(LOG_ERR, "overlayfs switch failed\n");
		return -1;
	}
	return 0;
}

static int mount_data(const char *mtd)
{
	return mount(mtd, "/data", "jffs2", 0, nullptr);
}

// Mounts flash memory. If that fails, erases it and tries once more.
static bool mount_or_erase_data(const char *mtd)
{
	if (mount_data(mtd) == 0)
		return true;
	erase_flash(mtd);
	if (mount_data(mtd) == 0)
		return true;
	_log(LOG_ERR, "data partition mount failed: err=-%d\n", errno);
	return false;
}

static bool set_up_flash_overlay(void)
{
	owned_text mtd{find_mtd("rootfs_data")};
	if (!mtd.ok()) {
		_log(LOG_ERR, "not found a valid overlay filesystem\n");
		return false;
	}
	if (!mount_or_erase_data(mtd.get()))
		return false;
	if (set_up_overlay("/data") == 0)
		return true;
	umount("/data");
	return false;
}

static void set_up_ram_overlay(void)
{
	_log(LOG_INFO, "fallback to ramoverlay\n");
	mkdir("/tmp/root", 0755);
	mount("tmpfs", "/tmp/root", "tmpfs", MS_NOATIME, "mode=0755");
	set_up_overlay("/tmp/root");
}

void mount_overlayfs(void)
{
	if (!set_up_flash_overlay())
		set_up_ram_overlay();
}

// ---- Flash memory ----

void erase_flash(const char *mtd)
{
	char tool[] = "/usr/sbin/flash_eraseall";
	char options[] = "-jq"; // formatted for JFFS2, without progress messages
	char *path;
	if (asprintf(&path, "/dev/%s", mtd) < 0) {
		_log(LOG_ERR, "overlay: asprintf has failed\n");
		return;
	}
	owned_text device{path};
	char *const argv[] = {tool, options, device.get(), nullptr};
	int status = execute(tool, argv, 1);
	if (status != 0)
		_log(LOG_ERR, "overlay: flash_eraseall has failed: err=%d\n", status);
}
