/*
 * overlay - a writable root at start-up: the read-only root below, and above it a layer in flash memory.
 *
 * For the firmware's first program, once, before any daemon starts: these calls change the mounts of
 * everything that runs in the same mount namespace, and need the right to do so (CAP_SYS_ADMIN). Mounts
 * must not be shared with another namespace. What fails is logged. No pointer may be null.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Makes the root writable: mounts the flash partition "rootfs_data" (JFFS2) at /data, an overlay at /mnt of
 * the present root below and /data/upper above, and pivots into it. Afterwards the root is the overlay, the
 * old root is at /system, and /proc, /dev, /tmp, /sys and /data are where they were.
 *
 * A partition that cannot be mounted is erased, once, and tried again. Where there is none, or it cannot be
 * used after all, "fallback to ramoverlay" is logged and the upper layer is in memory, at /tmp/root: the
 * system comes up writable and forgets what is written at the next start. Whether that worked is not told.
 *
 * The directories /data, /mnt and /system must be there, /proc must be mounted, and /tmp must be a mount
 * that can be written to. A switch that fails half-way, without /system for instance, has moved /proc
 * into the first overlay by then, and the second cannot succeed either.
 */
void mount_overlayfs(void);

/*
 * Makes the mount point `new_root` the root, and keeps the old one at `put_old`, a directory below the
 * new root, written as a path from there ("/system"). Paths put together of the two, and of the
 * directories below, are cut off at 63 bytes, without an error. /proc moves along before
 * that; /dev, /tmp, /sys and /data after it, each if it was mounted: one that was not is logged, and no
 * failure. The working directory is moved by the kernel if it was the old root, and stays where it is
 * otherwise.
 *
 * Returns: 0; a negated errno if /proc cannot be moved, and nothing has been changed; or -1 if the kernel
 *          refuses to change the root: /proc has moved into `new_root` by then. (-EPERM is -1, too.)
 */
int pivot(const char *new_root, const char *put_old);

/*
 * Erases a flash device, named as find_mtd does ("mtd5"), for JFFS2, by running
 * `/usr/sbin/flash_eraseall -jq /dev/<mtd>` to its end without a standard error. A failure is logged.
 */
void erase_flash(const char *mtd);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
