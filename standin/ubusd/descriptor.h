// One descriptor, one owner.
#pragma once
#include <errno.h>
#include <unistd.h>

#include <utility>

namespace ubusd
{

class descriptor
{
	int fd_;

public:
	explicit descriptor(int fd = -1) : fd_(fd) {}
	descriptor(descriptor &&from) noexcept : fd_(std::exchange(from.fd_, -1)) {}
	descriptor &operator=(descriptor &&from) noexcept
	{
		std::swap(fd_, from.fd_);
		return *this;
	}
	// Closing is never retried: after EINTR the number may be another's.
	~descriptor()
	{
		int saved_errno = errno;
		if (ok())
			close(fd_);
		errno = saved_errno;
	}
	bool ok() const { return fd_ >= 0; }
	int get() const { return fd_; }
};

} // namespace ubusd
