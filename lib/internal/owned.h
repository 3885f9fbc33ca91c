// One resource, one owner: a guard is as big as what it guards, and giving back is a direct call.
#pragma once
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

template <typename T, T none, auto drop>
class owned
{
	T value_;

public:
	explicit owned(T value = none) : value_(value) {}
	owned(owned &&from) : value_(from.give()) {}
	owned &operator=(owned &&from)
	{
		take(from.give());
		return *this;
	}
	~owned() { take(none); }
	bool ok() const { return value_ != none; }
	T get() const { return value_; }
	[[nodiscard]] T give()
	{
		T value = value_;
		value_ = none;
		return value;
	}
	void take(T value) // drops what it had; errno survives for the caller
	{
		int saved_errno = errno;
		if (ok())
			drop(value_);
		value_ = value;
		errno = saved_errno;
	}
};

using owned_fd = owned<int, -1, close>; // never retried: after EINTR the number may be another's
using owned_file = owned<FILE *, nullptr, fclose>;
using owned_text = owned<char *, nullptr, free>;
