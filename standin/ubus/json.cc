#include "json.h"

#include <stdint.h>

#include "attributes.h"

namespace
{

constexpr int depth_max = 100;
constexpr size_t name_bytes_max = 255;

// ---- UTF-8 ----

// The length of the sequence that a first byte announces; 0 if no sequence starts with it.
size_t announced_length(unsigned char first)
{
	if (first < 0x80)
		return 1;
	if (first < 0xc2 || first > 0xf4)
		return 0;
	return first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
}

// False for an overlong form, a UTF-16 surrogate, and a value beyond the last code point.
bool is_code_point(uint32_t value, size_t length)
{
	constexpr uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
	return value >= least[length] && (value < 0xd800 || value > 0xdfff) && value <= 0x10ffff;
}

// The length of the sequence at the start of `bytes`, which is not empty; 0 if it is not UTF-8.
size_t sequence_length(std::string_view bytes)
{
	auto at = [&](size_t index) { return static_cast<unsigned char>(bytes[index]); };
	size_t length = announced_length(at(0));
	if (length <= 1 || length > bytes.size())
		return length == 1 ? 1 : 0;
	uint32_t value = at(0) & (0x7fU >> length);
	for (size_t index = 1; index < length; ++index) {
		if ((at(index) & 0xc0U) != 0x80)
			return 0;
		value = value << 6 | (at(index) & 0x3fU);
	}
	return is_code_point(value, length) ? length : 0;
}

json_owner json_of_text(std::string_view bytes)
{
	std::string text = valid_utf8(bytes);
	return json_owner{json_stringn_nocheck(text.data(), text.size())};
}

// ---- From attributes ----

json_owner json_of_attribute(blob_attr *attribute, int depth);

json_owner json_of_array(attributes elements, int depth)
{
	json_owner array{json_array()};
	while (blob_attr *element = elements.next())
		json_array_append_new(array.get(), json_of_attribute(element, depth).release());
	return array;
}

// Of members with the same name the first counts, as it does for all readers of messages.
json_owner json_of_table(attributes members, int depth)
{
	json_owner object{json_object()};
	while (blob_attr *member = members.next()) {
		std::string name = valid_utf8(blobmsg_name(member));
		if (!json_object_get(object.get(), name.c_str()))
			json_object_set_new_nocheck(
				object.get(), name.c_str(), json_of_attribute(member, depth).release());
	}
	return object;
}

json_owner json_of_double(blob_attr *attribute)
{
	json_t *number = json_real(blobmsg_get_double(attribute));
	return json_owner{number ? number : json_null()}; // JSON has no infinity
}

json_owner json_of_container(blob_attr *attribute, int depth)
{
	if (depth >= depth_max)
		return json_of_text("(nested too deeply)");
	if (blobmsg_type(attribute) == BLOBMSG_TYPE_ARRAY)
		return json_of_array(attributes::in(attribute), depth + 1);
	return json_of_table(attributes::in(attribute), depth + 1);
}

// `attribute` has been checked.
json_owner json_of_attribute(blob_attr *attribute, int depth)
{
	switch (blobmsg_type(attribute)) {
	case BLOBMSG_TYPE_ARRAY:
	case BLOBMSG_TYPE_TABLE:
		return json_of_container(attribute, depth);
	case BLOBMSG_TYPE_STRING:
		return json_of_text(static_cast<const char *>(blobmsg_data(attribute)));
	case BLOBMSG_TYPE_INT64:
		return json_owner{json_integer(static_cast<int64_t>(blobmsg_get_u64(attribute)))};
	case BLOBMSG_TYPE_INT32:
		return json_owner{json_integer(static_cast<int32_t>(blobmsg_get_u32(attribute)))};
	case BLOBMSG_TYPE_INT16:
		return json_owner{json_integer(static_cast<int16_t>(blobmsg_get_u16(attribute)))};
	case BLOBMSG_TYPE_BOOL:
		return json_owner{json_boolean(blobmsg_get_u8(attribute))};
	case BLOBMSG_TYPE_DOUBLE:
		return json_of_double(attribute);
	default:
		return blobmsg_data_len(attribute) == 0 ? json_owner{json_null()}
							: json_of_text(value_of(attribute));
	}
}

// The JSON that a single attribute carries as text; null if there is none.
json_owner carried_json(attributes content)
{
	blob_attr *only = content.next();
	if (!only || content.next() || blobmsg_type(only) != BLOBMSG_TYPE_UNSPEC ||
		std::string_view{blobmsg_name(only)} != "json")
		return nullptr;
	std::string_view text = value_of(only);
	return json_owner{json_loadb(text.data(), text.size(), 0, nullptr)};
}

// ---- To attributes ----

bool add_value(blob_buf *buf, const char *name, json_t *value);

bool add_elements(blob_buf *buf, json_t *array)
{
	for (size_t index = 0; index < json_array_size(array); ++index)
		if (!add_value(buf, nullptr, json_array_get(array, index)))
			return false;
	return true;
}

bool add_all_members(blob_buf *buf, json_t *object)
{
	const char *name;
	json_t *value;
	json_object_foreach(object, name, value) if (std::string_view{name}.size() > name_bytes_max ||
						     !add_value(buf, name, value)) return false;
	return true;
}

bool add_container(blob_buf *buf, const char *name, json_t *value)
{
	bool is_array = json_is_array(value);
	void *cookie = blobmsg_open_nested(buf, name, is_array);
	if (!cookie || !(is_array ? add_elements(buf, value) : add_all_members(buf, value)))
		return false;
	blob_nest_end(buf, cookie);
	return true;
}

bool add_integer(blob_buf *buf, const char *name, json_int_t value)
{
	if (value >= INT32_MIN && value <= INT32_MAX)
		return blobmsg_add_u32(buf, name, static_cast<uint32_t>(value)) == 0;
	return blobmsg_add_u64(buf, name, static_cast<uint64_t>(value)) == 0;
}

bool add_value(blob_buf *buf, const char *name, json_t *value)
{
	switch (json_typeof(value)) {
	case JSON_OBJECT:
	case JSON_ARRAY:
		return add_container(buf, name, value);
	case JSON_STRING:
		return blobmsg_add_string(buf, name, json_string_value(value)) == 0;
	case JSON_INTEGER:
		return add_integer(buf, name, json_integer_value(value));
	case JSON_REAL:
		return blobmsg_add_double(buf, name, json_real_value(value)) == 0;
	case JSON_TRUE:
	case JSON_FALSE:
		return blobmsg_add_u8(buf, name, json_is_true(value)) == 0;
	case JSON_NULL:
		break;
	}
	return blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
}

} // namespace

std::string valid_utf8(std::string_view bytes)
{
	std::string text;
	text.reserve(bytes.size());
	while (!bytes.empty()) {
		size_t length = sequence_length(bytes);
		text += length ? bytes.substr(0, length) : std::string_view{"\xef\xbf\xbd"};
		bytes.remove_prefix(length ? length : 1);
	}
	return text;
}

json_owner json_of_message(const blob_attr *message)
{
	attributes content = attributes::in_message(message);
	if (json_owner carried = carried_json(content))
		return carried;
	return json_of_table(content, 0);
}

bool message::add_members(json_t *object)
{
	return json_is_object(object) && add_all_members(&buf_, object);
}

bool message::add_text(json_t *json)
{
	std::string text(json_dumpb(json, nullptr, 0, JSON_COMPACT), '\0');
	json_dumpb(json, text.data(), text.size(), JSON_COMPACT);
	return blobmsg_add_field(&buf_, BLOBMSG_TYPE_UNSPEC, "json", text.data(),
		       static_cast<unsigned int>(text.size())) == 0;
}
