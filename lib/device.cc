// One pointer to the board's description, and an accessor for each member. Without a description the process ends. That
// report names lines of "lib/device.c", not of this file: people search their logs for them.

#include "device.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/owned.h"
#include "internal/path.h"
#include "log.h"
#include "net.h"

constinit static const device *current;

void device_set(const struct device *dev)
{
	current = dev;
}

// The description; without one the process ends.
static const device *described(const char *location, const char *function)
{
	if (!current)
		assert_failure(location, function, "dev");
	return current;
}

// A member of the switch, or null without a switch.
static const char *switch_member(const device *dev, const char *device_switch::*member)
{
	return dev->sw ? dev->sw->*member : nullptr;
}

const char *dev_id(void)
{
	return described("lib/device.c:20", __func__)->id;
}

const char *dev_vendor(void)
{
	return described("lib/device.c:26", __func__)->vendor;
}

const char *dev_name(void)
{
	return described("lib/device.c:32", __func__)->name;
}

const char *dev_wan_iface(void)
{
	if (!current || !current->wan_iface)
		assert_failure("lib/device.c:39", __func__, "dev && dev->wan_iface");
	return current->wan_iface;
}

const char *dev_lan_iface(void)
{
	return described("lib/device.c:46", __func__)->lan_iface;
}

const char *dev_radio1_phy(void)
{
	return described("lib/device.c:52", __func__)->radio1_phy;
}

unsigned int dev_radio1_mode(void)
{
	return described("lib/device.c:58", __func__)->radio1_mode;
}

const char *dev_radio2_phy(void)
{
	return described("lib/device.c:64", __func__)->radio2_phy;
}

unsigned int dev_radio2_mode(void)
{
	return described("lib/device.c:70", __func__)->radio2_mode;
}

int dev_has_radio(unsigned int index)
{
	switch (index) {
	case 0:
		return dev_radio1_phy() != nullptr;
	case 1:
		return dev_radio2_phy() != nullptr;
	default:
		return 0;
	}
}

int dev_has_switch(void)
{
	return described("lib/device.c:118", __func__)->sw != nullptr;
}

const char *dev_switch_dev(void)
{
	return switch_member(described("lib/device.c:124", __func__), &device_switch::dev);
}

const char *dev_switch_cpu(void)
{
	return switch_member(described("lib/device.c:130", __func__), &device_switch::cpu);
}

const char *dev_switch_cpu_lan(void)
{
	const device *dev = described("lib/device.c:136", __func__);
	const char *port = switch_member(dev, &device_switch::cpu_lan);
	return port ? port : switch_member(dev, &device_switch::cpu);
}

const char *dev_switch_wan(void)
{
	return switch_member(described("lib/device.c:149", __func__), &device_switch::wan);
}

const char *dev_switch_lan(void)
{
	return switch_member(described("lib/device.c:155", __func__), &device_switch::lan);
}

int dev_init(void)
{
	const device *dev = described("lib/device.c:76", __func__);
	return dev->init ? dev->init() : 0;
}

int dev_led_set(unsigned int state)
{
	const device *dev = described("lib/device.c:98", __func__);
	return dev->led_set ? dev->led_set(state) : 0;
}

int dev_post_upgrade(void)
{
	const device *dev = described("lib/device.c:161", __func__);
	return dev->post_upgrade ? dev->post_upgrade() : 0;
}

// ---- Addresses ----

using owned_json = owned<json_t *, nullptr, json_decref>;

// Appends the address and frees it. Null: it could not be read.
static int append_mac(json_t *array, char *mac)
{
	owned_text text{mac};
	if (!text.ok())
		return -ENOENT;
	return json_array_append_new(array, json_string(text.get())) == 0 ? 0 : -ENOMEM;
}

static int append_radio_mac(json_t *array, const char *phy)
{
	return phy ? append_mac(array, get_radio_mac(phy)) : 0;
}

int dev_get_mac_json_array(json_t **out)
{
	owned_json array{json_array()};
	if (!array.ok())
		return -ENOMEM;
	int error = append_mac(array.get(), iface_mac(dev_wan_iface()));
	if (!error)
		error = append_radio_mac(array.get(), dev_radio1_phy());
	if (!error)
		error = append_radio_mac(array.get(), dev_radio2_phy());
	if (!error)
		*out = array.give();
	return error;
}

// ---- LEDs ----

void _led_set_attr(const char *led, const char *attribute, const char *value)
{
	char path[PATH_BYTES];
	if (!format_path(path, "/sys/class/leds/%s/%s", led, attribute)) {
		_log(LOG_ERR, "led: error while generating the path\n");
		return;
	}
	owned_fd file{open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)};
	if (!file.ok()) {
		_log(LOG_ERR, "led: unable to open %s: err=-%d\n", path, errno);
		return;
	}
	// The result is not looked at: compatibility, LED writes
	[[maybe_unused]] ssize_t written = write(file.get(), value, strlen(value));
}
