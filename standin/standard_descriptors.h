// Both programs call this first.
#pragma once
#include <fcntl.h>
#include <unistd.h>

// Opens /dev/null on each of the descriptors 0 to 2 that is closed: otherwise a socket could become a standard stream,
// and receive what is printed.
inline void open_standard_descriptors()
{
	int fd = 0;
	while (fd >= 0 && fd <= STDERR_FILENO)
		fd = open("/dev/null", O_RDWR);
	if (fd > STDERR_FILENO)
		close(fd);
}
