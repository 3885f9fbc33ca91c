// Reading attributes that nobody has looked at yet: walked by lengths alone, and checked before they are
// given out.
#pragma once
#include <libubus.h>

#include <string_view>

inline std::string_view value_of(const blob_attr *attribute)
{
	return {static_cast<const char *>(blobmsg_data(attribute)), blobmsg_data_len(attribute)};
}

// What is left of a container, from the first attribute to the last.
class attributes
{
	std::string_view left_;

	explicit attributes(std::string_view bytes) : left_(bytes) {}

	// Null at the end, or where the lengths stop making sense.
	blob_attr *next_of_any_kind()
	{
		if (left_.size() < sizeof(blob_attr))
			return nullptr;
		const void *first = left_.data();
		auto *attribute = const_cast<blob_attr *>(static_cast<const blob_attr *>(first));
		size_t padded = blob_pad_len(attribute);
		if (padded < sizeof(blob_attr) || padded > left_.size())
			return nullptr;
		left_.remove_prefix(padded);
		return attribute;
	}

public:
	// Of an attribute without a name, as a message or a signature is, whatever its bits say; null has
	// none.
	static attributes in_message(const blob_attr *message)
	{
		if (!message)
			return attributes{{}};
		return attributes{{static_cast<const char *>(blob_data(message)), blob_len(message)}};
	}

	// Of an attribute that `next` has given out.
	static attributes in(const blob_attr *container) { return attributes{value_of(container)}; }

	// The next one with a name, though perhaps an empty one, and a value that fits its type; null at the
	// end.
	blob_attr *next()
	{
		while (blob_attr *attribute = next_of_any_kind())
			if (blob_is_extended(attribute) && blobmsg_check_attr(attribute, false))
				return attribute;
		return nullptr;
	}
};
