// What both programs do first.
#pragma once
#include <fcntl.h>
#include <unistd.h>

// Opens /dev/null on those of the descriptors 0 to 2 that are closed: a socket that became a standard stream would get
// what is printed.
inline void open_standard_descriptors()
{
	int fd = 0;
	while (fd >= 0 && fd <= STDERR_FILENO)
		fd = open("/dev/null", O_RDWR);
	if (fd > STDERR_FILENO)
		close(fd);
}
