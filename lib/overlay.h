/*
 * overlay - a writable root at start-up: the read-only root below, and above it a layer in flash memory.
 *
 * For the firmware's first program, once, before any daemon starts: these calls change the mounts of all
 * that shares its mount namespace. They need CAP_SYS_ADMIN, and mounts not shared with another namespace.
 * Failures are logged. No pointer may be null.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Mounts the flash partition "rootfs_data" (JFFS2) at /data, and at /mnt an overlay of the present root
 * below and /data/upper above, and pivots into it. The old root is then at /system; /proc, /dev, /tmp,
 * /sys and /data are where they were. /data, /mnt and /system must be directories, /proc mounted, /tmp a
 * writable mount.
 *
 * A partition that cannot be mounted is erased, once. If there is none, or it still cannot be used,
 * "fallback to ramoverlay" is logged, and the upper layer is in memory, at /tmp/root: what is written is
 * lost at the next start.
 *
 * Errors:    not told. A switch that fails half-way, for want of /system say, has moved /proc into the
 *            first overlay, and the second cannot succeed either.
 */
void mount_overlayfs(void);

/*
 * Makes the mount point `new_root` the root, and keeps the old one at `put_old`, a directory in the new
 * root, named as seen from there ("/system"). /proc moves before; /dev, /tmp, /sys and /data after, and
 * one that was not mounted is only logged. Paths made of these names are cut at 63 bytes. A working
 * directory moves along if it was the old root.
 *
 * Returns:   0.
 * Errors:    a negated errno: /proc cannot be moved, nothing has changed. -1 (also -EPERM): the kernel
 *            refuses to change the root, and /proc is in `new_root`.
 */
int pivot(const char *new_root, const char *put_old);

/*
 * Erases a flash device, as find_mtd names it ("mtd5"), for JFFS2: runs `/usr/sbin/flash_eraseall -jq
 * /dev/<mtd>` to its end without a standard error. A failure is logged.
 */
void erase_flash(const char *mtd);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
