#include "tests/support/system_calls.h"

#include <stdio.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#define INTERPOSED(returned, name, parameters, arguments)                                                    \
	constinit decltype(system_calls::name) system_calls::name{#name};                                    \
	extern "C" returned name parameters                                                                  \
	{                                                                                                    \
		return system_calls::name arguments;                                                         \
	}

// clang-format off
INTERPOSED(int, bind, (int fd, const sockaddr *name, socklen_t length) noexcept, (fd, name, length))
INTERPOSED(int, clock_gettime, (clockid_t clock, timespec *time) noexcept, (clock, time))
INTERPOSED(int, dup2, (int from, int to) noexcept, (from, to))
INTERPOSED(int, epoll_wait, (int fd, epoll_event *events, int count, int timeout_ms), (fd, events, count, timeout_ms))
INTERPOSED(int, execv, (const char *path, char *const argv[]) noexcept, (path, argv))
INTERPOSED(int, flock, (int fd, int operation) noexcept, (fd, operation))
INTERPOSED(int, fsync, (int fd), (fd))
INTERPOSED(int, getaddrinfo, (const char *host, const char *service, const addrinfo *hints, addrinfo **found),
	(host, service, hints, found))
INTERPOSED(int, getsockname, (int fd, sockaddr *name, socklen_t *length) noexcept, (fd, name, length))
INTERPOSED(int, lstat64, (const char *path, struct stat64 *about) noexcept, (path, about))
INTERPOSED(int, mount,
	(const char *source, const char *target, const char *type, unsigned long flags, const void *data) noexcept,
	(source, target, type, flags, data))
INTERPOSED(ssize_t, read, (int fd, void *bytes, size_t count), (fd, bytes, count))
INTERPOSED(dirent64 *, readdir64, (DIR *directory), (directory))
INTERPOSED(ssize_t, recvmsg, (int fd, msghdr *message, int flags), (fd, message, flags))
INTERPOSED(int, rename, (const char *path, const char *new_path) noexcept, (path, new_path))
INTERPOSED(int, select, (int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout),
	(count, readable, writable, exceptional, timeout))
INTERPOSED(ssize_t, sendto, (int fd, const void *bytes, size_t count, int flags, const sockaddr *to, socklen_t length),
	(fd, bytes, count, flags, to, length))
INTERPOSED(int, setsockopt, (int fd, int level, int option, const void *value, socklen_t length) noexcept,
	(fd, level, option, value, length))
INTERPOSED(int, umount, (const char *target) noexcept, (target))
INTERPOSED(int, unlink, (const char *path) noexcept, (path))
INTERPOSED(void, vsyslog, (int priority, const char *format, va_list arguments), (priority, format, arguments))
INTERPOSED(pid_t, waitpid, (pid_t pid, int *status, int options), (pid, status, options))
INTERPOSED(ssize_t, write, (int fd, const void *bytes, size_t count), (fd, bytes, count))
// clang-format on

// The machines that the tests run on pass a variable argument as they pass a named one.
constinit decltype(system_calls::ioctl) system_calls::ioctl{"ioctl"};
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
	va_list arguments;
	va_start(arguments, request);
	void *argument = va_arg(arguments, void *);
	va_end(arguments);
	return system_calls::ioctl(fd, request, argument);
}

// Fortified code calls these instead.
extern "C" {
ssize_t __read_chk(int fd, void *bytes, size_t count, size_t bytes_max);
void __vsyslog_chk(int priority, int flag, const char *format, va_list arguments);

ssize_t __read_chk(int fd, void *bytes, size_t count, size_t)
{
	return read(fd, bytes, count);
}

__attribute__((format(printf, 3, 0))) void __vsyslog_chk(
	int priority, int, const char *format, va_list arguments)
{
	vsyslog(priority, format, arguments);
}
}
