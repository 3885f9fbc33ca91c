// A number as decimal text, without printf.
#pragma once
#include <stddef.h>

class decimal
{
	static constexpr int SIZE = 12; // "-2147483648" and its terminating zero
	char digits_[SIZE];
	char *begin_;

public:
	explicit decimal(int number) : begin_(digits_ + SIZE - 1)
	{
		unsigned rest =
			number < 0 ? 0U - static_cast<unsigned>(number) : static_cast<unsigned>(number);
		*begin_ = '\0';
		do
			*--begin_ = static_cast<char>('0' + rest % 10);
		while ((rest /= 10) != 0);
		if (number < 0)
			*--begin_ = '-';
	}
	decimal(const decimal &) = delete;
	decimal &operator=(const decimal &) = delete;
	const char *text() const { return begin_; }
	size_t length() const { return static_cast<size_t>(digits_ + SIZE - 1 - begin_); }
};
