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

// The message as libubus hands it over, which may hold anything, or be null; never null. What cannot be read
// is left out, and what lies deeper than a person would look is not looked at. A message in which nothing
// but an UNSPEC attribute "json" is found, with the text of an object or array, is that object or array.
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

	// Adds the members of `object` as named attributes, or all of `json` as the text in one attribute
	// "json". False if `object` is none, a name is longer than receivers look at, or the space has run
	// out.
	bool add_members(json_t *object);
	bool add_text(json_t *json);
};
