#include "examples/common/message.h"

#include <string.h>

bool is_name(const char *text, size_t size)
{
	static const char allowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.";
	size_t length = strspn(text, allowed);
	return length > 0 && length < size && text[length] == '\0';
}

/* `to` is large enough: the length has been checked. */
static void copy_text(char *to, const char *text)
{
	memcpy(to, text, strlen(text) + 1);
}

struct led *leds_find(struct leds *leds, const char *name)
{
	for (int index = 0; index < leds->count; index++)
		if (strcmp(leds->led[index].name, name) == 0)
			return &leds->led[index];
	return NULL;
}

json_t *leds_json(const struct leds *leds)
{
	json_t *json = json_object();
	for (int index = 0; index < leds->count; index++)
		json_object_set_new(json, leds->led[index].name, json_boolean(leds->led[index].on));
	return json;
}

json_t *led_json(const struct led *led)
{
	return json_pack("{s:s, s:b}", "led", led->name, "on", (int)led->on);
}

int led_read(struct led *led, json_t *json)
{
	const char *name = NULL;
	int on = 0;
	if (json_unpack(json, "{s:s, s:b}", "led", &name, "on", &on))
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (!is_name(name, sizeof led->name))
		return UBUS_STATUS_INVALID_ARGUMENT;
	copy_text(led->name, name);
	led->on = on;
	return 0;
}

int led_parse(struct led *led, struct blob_attr *message)
{
	json_t *json = NULL;
	int status = ubus_parse_json_msg(message, &json);
	if (status == 0)
		status = led_read(led, json);
	json_decref(json);
	return status;
}

/* `leds` starts empty. A failure leaves it partly filled. */
static int leds_read(struct leds *leds, json_t *json)
{
	const char *name = NULL;
	json_t *on = NULL;

	if (json_object_size(json) > LEDS_MAX)
		return UBUS_STATUS_INVALID_ARGUMENT;
	json_object_foreach(json, name, on)
	{
		struct led *led = &leds->led[leds->count];
		if (!json_is_boolean(on) || !is_name(name, sizeof led->name))
			return UBUS_STATUS_INVALID_ARGUMENT;
		copy_text(led->name, name);
		led->on = json_is_true(on);
		leds->count++;
	}
	return 0;
}

json_t *announcement_json(const struct announcement *announcement)
{
	return json_pack("{s:s, s:s, s:s, s:o}", //
		"name", announcement->name,      //
		"object", announcement->object,  //
		"url", announcement->url,        //
		"leds", leds_json(&announcement->leds));
}

static int announcement_read(struct announcement *announcement, json_t *json)
{
	struct announcement read = {0};
	const char *name = NULL, *object = NULL, *url = NULL;
	json_t *leds = NULL;

	if (json_unpack(json, "{s:s, s:s, s:s, s:o}", "name", &name, "object", &object, "url", &url, "leds",
		    &leds))
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (!is_name(name, sizeof read.name) || !is_name(object, sizeof read.object))
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (strlen(url) >= sizeof read.url || !json_is_object(leds) || leds_read(&read.leds, leds))
		return UBUS_STATUS_INVALID_ARGUMENT;
	copy_text(read.name, name);
	copy_text(read.object, object);
	copy_text(read.url, url);
	*announcement = read;
	return 0;
}

int announcement_parse(struct announcement *announcement, struct blob_attr *message)
{
	json_t *json = NULL;
	int status = ubus_parse_json_msg(message, &json);
	if (status == 0)
		status = announcement_read(announcement, json);
	json_decref(json);
	return status;
}
