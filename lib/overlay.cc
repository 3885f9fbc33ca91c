// From a read-only root to a writable one. Whatever goes wrong on the way, the end is an attempt at an
// overlay: a device that does not come up cannot be repaired over the network.

#include "overlay.h"

#include <errno.h>
#include <initializer_list>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "caldata.h"
#include "internal/owned.h"
#include "log.h"
#include "utils.h"

// Two pieces of a path, joined. What does not fit is cut off: compatibility, cut paths
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
	_log(3, "mount_move err %s %s %s: err=-%d\n", prefix_from, prefix_to, dir, error);
	return -error;
}

static int pivot_root(const char *new_root, const char *put_old)
{
	int result = static_cast<int>(syscall(SYS_pivot_root, new_root, put_old));
	if (result < 0)
		_log(3, "root pivoting failed: err=-%d\n", errno);
	return result;
}

int pivot(const char *new_root, const char *put_old)
{
	int error = mount_move("", new_root, "/proc");
	if (error)
		return error;
	error = pivot_root(new_root, joined_path{new_root, put_old}.text);
	if (error < 0)
		return error;
	for (const char *dir : {"/dev", "/tmp", "/sys", "/data"})
		mount_move(put_old, "", dir); // compatibility, moves unchecked
	return 0;
}

// ---- The overlay ----

static int mount_overlay(const char *dir)
{
	char label[64], options[256];
	joined_path upper{dir, "/upper"}, work{dir, "/work"};
	snprintf(label, sizeof label, "overlayfs:%s", dir);
	snprintf(options, sizeof options, "lowerdir=/,upperdir=%s,workdir=%s", upper.text, work.text);
	mkdir(upper.text, 0755);
	mkdir(work.text, 0755);
	return mount(label, "/mnt", "overlay", MS_NOATIME, options);
}

// Makes an overlay whose upper layer lies in `dir` the root: 0 or -1.
static int set_up_overlay(const char *dir)
{
	if (mount_overlay(dir) != 0) {
		_log(3, "overlayfs mount failed: err=-%d\n", errno);
		return -1;
	}
	if (pivot("/mnt", "/system") != 0) {
		_log(3, "overlayfs switch failed\n");
		return -1;
	}
	return 0;
}

static int mount_data(const char *mtd)
{
	return mount(mtd, "/data", "jffs2", 0, nullptr);
}

// Flash memory that does not mount is erased once, and then has to.
static bool mount_or_erase_data(const char *mtd)
{
	if (mount_data(mtd) == 0)
		return true;
	erase_flash(mtd);
	if (mount_data(mtd) == 0)
		return true;
	_log(3, "data partition mount failed: err=-%d\n", errno);
	return false;
}

static bool set_up_flash_overlay(void)
{
	owned_text mtd{find_mtd("rootfs_data")};
	if (!mtd.ok()) {
		_log(3, "not found a valid overlay filesystem\n");
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
	_log(6, "fallback to ramoverlay\n");
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
	char options[] = "-jq"; // with JFFS2's marks, and quietly
	char *path;
	if (asprintf(&path, "/dev/%s", mtd) < 0) {
		_log(3, "overlay: asprintf has failed\n");
		return;
	}
	owned_text device{path};
	char *const argv[] = {tool, options, device.get(), nullptr};
	int status = execute(tool, argv, 1);
	if (status != 0)
		_log(3, "overlay: flash_eraseall has failed: err=%d\n", status);
}
