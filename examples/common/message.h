/*
 * message - the messages between the two example daemons on the bus, written and parsed.
 *
 * Messages may come from strangers. They are copied into records of a fixed size, and refused if they do not fit. The
 * functions that read return 0; or UBUS_STATUS_INVALID_ARGUMENT, and then nothing has changed.
 */
#pragma once
#include <jansson.h>
#include <stdbool.h>
#include <stddef.h>

#include "lib/ubus.h"

/* Sizes of texts, with their terminating zeros. */
#define AP_NAME_SIZE  25 /* "apstat." and a name make a path that fits OBJECT_SIZE */
#define OBJECT_SIZE   32 /* of the path of an object, as struct ubus_subscription has it */
#define URL_SIZE      64
#define LED_NAME_SIZE 16
#define LEDS_MAX      8

struct led {
	char name[LED_NAME_SIZE];
	bool on;
};

struct leds {
	struct led led[LEDS_MAX];
	int count;
};

/* An access point, as it announces itself. */
struct announcement {
	char name[AP_NAME_SIZE];
	char object[OBJECT_SIZE];
	char url[URL_SIZE];
	struct leds leds;
};

/*
 * Whether `text` is a name of fewer than `size` bytes: at least one ASCII letter or digit, "-", "_" or ".". Access
 * points, LEDs and objects have such names.
 */
bool is_name(const char *text, size_t size);

/* The LED of this name; null if there is none. */
struct led *leds_find(struct leds *leds, const char *name);

/* {"power": true, "wlan": false} */
json_t *leds_json(const struct leds *leds);

/* {"led": "power", "on": true}: the argument and the answer of set_led, and the notification "led". */
json_t *led_json(const struct led *led);
int led_read(struct led *led, json_t *json);
int led_parse(struct led *led, struct blob_attr *message);

/* {"name": "hall", "object": "apstat.hall", "url": "http://192.0.2.1/", "leds": {"power": true}} */
json_t *announcement_json(const struct announcement *announcement);
int announcement_parse(struct announcement *announcement, struct blob_attr *message);
