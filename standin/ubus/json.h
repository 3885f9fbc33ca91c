// Messages of the bus as JSON, and JSON as messages.
#pragma once
#include <jansson.h>
#include <libubus.h>

#include <memory>
#include <string>
#include <string_view>

struct json_dropper {
	void operator()(json_t *json) const { json_decref(json); }
};
using json_owner = std::unique_ptr<json_t, json_dropper>;

// `bytes` with U+FFFD for whatever is not UTF-8.
std::string valid_utf8(std::string_view bytes);

// The JSON of a message as libubus delivers it: the message may hold anything, or be null; the result is never null.
// Malformed attributes are left out, and so is what is nested too deeply for a person to read. A message of nothing but
// an UNSPEC attribute "json", with the text of an object or array, becomes that object or array.
json_owner json_of_message(const blob_attr *message);

// A message under construction.
class message
{
	blob_buf buf_{};

public:
	message() { blob_buf_init(&buf_, 0); }
	message(const message &) = delete;
	message &operator=(const message &) = delete;
	~message() { blob_buf_free(&buf_); }
	blob_attr *head() const { return buf_.head; }

	// Add the members of `object` as named attributes, or all of `json` as the text of one attribute "json".
	// False if `object` is no object, a name is too long for receivers, or the message is full.
	bool add_members(json_t *object);
	bool add_text(json_t *json);
};
