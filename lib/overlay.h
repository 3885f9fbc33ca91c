/*
 * overlay - a writable root at start-up: the read-only root below, and above it a layer in flash memory.
 *
 * For the firmware's first program, once, before any daemon: these calls change the mounts of its whole
 * mount namespace. They need CAP_SYS_ADMIN, and mounts not shared with another namespace. Failures are
 * logged. No pointer may be null.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Mounts the flash partition "rootfs_data" (JFFS2) at /data, and at /mnt an overlay of the root below and
 * /data/upper above, and pivots into it, with the old root at /system. /proc, /dev, /tmp, /sys and /data
 * stay where they were. Needs the directories /data, /mnt and /system, /proc mounted, and a writable
 * mount at /tmp.
 *
 * A partition that does not mount is erased, once, and tried again. Without one that can be used,
 * "fallback to ramoverlay" is logged, and the upper layer is in memory, at /tmp/root, until the next
 * start.
 *
 * Errors:    not told. A switch that fails half-way, as without /system, has moved /proc into the first
 *            overlay; then the second fails, too.
 */
void mount_overlayfs(void);

/*
 * Makes the mount point `new_root` the root, and keeps the old one at `put_old`, a directory in the new
 * root, as seen from there ("/system"). /proc moves before; /dev, /tmp, /sys and /data after, each logged
 * if it was not mounted. Paths made of these names are cut at 63 bytes. A working directory that was the
 * old root moves along.
 *
 * Returns:   0.
 * Errors:    a negated errno: /proc cannot be moved, nothing has changed. -1 (as is -EPERM): the kernel
 *            refuses to change the root, and /proc is in `new_root`.
 */
int pivot(const char *new_root, const char *put_old);

/*
 * Erases a flash device, as find_mtd names it ("mtd5"), for JFFS2: runs
 * `/usr/sbin/flash_eraseall -jq /dev/<mtd>` to its end without a standard error. A failure is logged.
 */
void erase_flash(const char *mtd);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
