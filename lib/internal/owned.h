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
	[[gnu::always_inline]] ~owned() { reset(); } // inline, so that a guard lives in a register
	bool ok() const { return value_ != none; }
	T get() const { return value_; }
	[[nodiscard]] T give()
	{
		T value = value_;
		value_ = none;
		return value;
	}
	[[gnu::always_inline]] void take(T value) // drops the former value
	{
		if (ok())
			drop(value_);
		value_ = value;
	}
	[[gnu::always_inline]] void reset() { take(none); }
};

// Drops a value and keeps errno, which the caller may still need. free() keeps it by itself.
template <typename T, auto drop>
void quietly(T value)
{
	int saved_errno = errno;
	drop(value);
	errno = saved_errno;
}

// Closing is never retried: after EINTR the number may be another's.
using owned_fd = owned<int, -1, quietly<int, close>>;
using owned_file = owned<FILE *, nullptr, quietly<FILE *, fclose>>;
using owned_text = owned<char *, nullptr, free>;
