// Reads attributes that are not checked yet: walks them by their lengths, and checks each before it returns it.
#pragma once
#include <libubus.h>

#include <string_view>

inline std::string_view value_of(const blob_attr *attribute)
{
	return {static_cast<const char *>(blobmsg_data(attribute)), blobmsg_data_len(attribute)};
}

// The rest of a container, from the next attribute to the last.
class attributes
{
	std::string_view left_;

	explicit attributes(std::string_view bytes) : left_(bytes) {}

	// Null at the end, or where a length is wrong.
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
	// The children of an attribute without a name, such as a message or a signature, whatever its bits say;
	// none if it is null.
	static attributes in_message(const blob_attr *message)
	{
		if (!message)
			return attributes{{}};
		return attributes{{static_cast<const char *>(blob_data(message)), blob_len(message)}};
	}

	// The children of an attribute that `next` has returned.
	static attributes in(const blob_attr *container) { return attributes{value_of(container)}; }

	// The next attribute with a name, even an empty one, and a value that fits its type; null at the end.
	blob_attr *next()
	{
		while (blob_attr *attribute = next_of_any_kind())
			if (blob_is_extended(attribute) && blobmsg_check_attr(attribute, false))
				return attribute;
		return nullptr;
	}
};
