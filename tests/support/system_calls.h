// The calls of the C library that tests replace or watch. A program that includes this is linked with test_system_calls
// (tests/CMakeLists.txt). To add one: a line here and a line in system_calls.cc.
//
//	auto full = system_calls::write.replace([](int, const void *, size_t) { return errno = ENOSPC, -1; });
#pragma once
#include <dirent.h>
#include <netdb.h>
#include <stdarg.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include "tests/support/interposed.h"

namespace system_calls
{

extern interposed<int(int, const sockaddr *, socklen_t)> bind;
extern interposed<int(clockid_t, timespec *)> clock_gettime;
extern interposed<int(int, int)> dup2;
extern interposed<int(int, epoll_event *, int, int)> epoll_wait;
extern interposed<int(const char *, char *const *)> execv;
extern interposed<int(int, int)> flock;
extern interposed<int(int)> fsync;
extern interposed<int(const char *, const char *, const addrinfo *, addrinfo **)> getaddrinfo;
extern interposed<int(int, sockaddr *, socklen_t *)> getsockname;
extern interposed<int(int, unsigned long, void *)> ioctl;
extern interposed<int(const char *, struct stat64 *)> lstat64; // lstat is this one where files are large
extern interposed<int(const char *, const char *, const char *, unsigned long, const void *)> mount;
extern interposed<ssize_t(int, void *, size_t)> read;
extern interposed<dirent64 *(DIR *)> readdir64; // readdir is this one where files are large
extern interposed<ssize_t(int, msghdr *, int)> recvmsg;
extern interposed<int(const char *, const char *)> rename;
extern interposed<int(int, fd_set *, fd_set *, fd_set *, timeval *)> select;
extern interposed<ssize_t(int, const void *, size_t, int, const sockaddr *, socklen_t)> sendto;
extern interposed<int(int, int, int, const void *, socklen_t)> setsockopt;
extern interposed<int(const char *)> umount;
extern interposed<int(const char *)> unlink;
extern interposed<void(int, const char *, va_list)> vsyslog;
extern interposed<pid_t(pid_t, int *, int)> waitpid;
extern interposed<ssize_t(int, const void *, size_t)> write;

} // namespace system_calls
