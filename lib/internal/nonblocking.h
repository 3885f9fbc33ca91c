// Makes a descriptor non-blocking; a failure is ignored.
#pragma once
#include <fcntl.h>

inline void make_nonblocking(int fd)
{
	int flags = fcntl(fd, F_GETFL);
	if (!(flags & O_NONBLOCK))
		fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}
