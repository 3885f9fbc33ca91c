/*
 * device - the board that the daemons run on: interfaces, radios, switch ports, LEDs, start-up work.
 *
 * The library's one board is described before any constructor of a daemon runs. Reading without a
 * description ends the process (assert_failure). All text is the description's: do not free it. One
 * thread.
 */
#pragma once
#include <jansson.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* How a switch is wired. Ports are text, "2"; all may be null. */
struct device_switch {
	const char *dev;     /* the switch, "switch0" */
	const char *cpu;     /* the CPU's port */
	const char *cpu_lan; /* a second one, for the LAN; null if one serves both */
	const char *wan;     /* the WAN port */
	const char *lan;     /* the LAN port or ports */
};

/* A board. All that it points to must live as long as the process. */
struct device {
	const char *id;                     /* for machines, "unifiacpro" */
	const char *vendor;                 /* its maker */
	const char *name;                   /* the model, for people */
	const struct device_switch *sw;     /* null without a switch */
	const char *wan_iface;              /* interface towards the WAN; never null */
	const char *lan_iface;              /* towards the LAN; may be null */
	const char *radio1_phy;             /* the first radio in /sys/class/ieee80211, "phy1"; may be null */
	uint8_t radio1_mode;                /* what it can do; the daemons' bits */
	const char *radio2_phy;             /* the second radio; may be null */
	uint8_t radio2_mode;                /* the same */
	int (*led_set)(unsigned int state); /* shows DEV_LED_*, ignores others; may be null */
	int (*init)(void);                  /* start-up work; may be null */
	int (*post_upgrade)(void);          /* work after a firmware upgrade; may be null */
};

/* What the LEDs show, with the built-in board's times. */
enum {
	DEV_LED_OFF = 0,

	DEV_LED_WHITE_BLINK = 1, /* at the kernel's pace */
	DEV_LED_BLUE_ON = 2,

	DEV_LED_WHITE_BLINK_FAST = 3, /* 100 ms on, 100 ms off */
	DEV_LED_WHITE_BLINK_SLOW = 4, /* 1000 ms on, 1000 ms off */
	DEV_LED_BLUE_BLINK = 5,       /* at the kernel's pace */
};

/*
 * Replaces the description; null takes it away.
 *
 * Ownership: borrowed for the life of the process.
 */
void device_set(const struct device *dev);

/* Returns:   the member of the description. A null `wan_iface` ends the process, too. */
const char *dev_id(void);
const char *dev_vendor(void);
const char *dev_name(void);
const char *dev_wan_iface(void);
const char *dev_lan_iface(void);
const char *dev_radio1_phy(void);
unsigned int dev_radio1_mode(void);
const char *dev_radio2_phy(void);
unsigned int dev_radio2_mode(void);

/* Returns:   1 if there is radio 1 (`index` 0) or 2 (1), else 0; other indices need no description. */
int dev_has_radio(unsigned int index);

/* Returns:   1 if there is a switch, else 0. */
int dev_has_switch(void);

/* Returns:   the member of the switch; null without one. A null `cpu_lan` reads as `cpu`. */
const char *dev_switch_dev(void);
const char *dev_switch_cpu(void);
const char *dev_switch_cpu_lan(void);
const char *dev_switch_wan(void);
const char *dev_switch_lan(void);

/*
 * Call the description's functions; `state` is one of DEV_LED_*. dev_init is for the program that brings
 * the system up: the built-in board's copies the radios' calibration data (caldata.h), logs files that
 * cannot be made, and returns 0. If the partition "EEPROM" is too short it never returns.
 *
 * Returns:   the function's result; 0 without one.
 */
int dev_init(void);
int dev_led_set(unsigned int state);
int dev_post_upgrade(void);

/*
 * Makes a JSON array of the board's MAC addresses as text (net.h): of the WAN interface, then of each
 * radio.
 *
 * Returns:   0.
 * Errors:    -ENOENT: one cannot be read, logged for radios only (the interface's needs CAP_NET_RAW);
 *            -ENOMEM, also for an address that JSON cannot hold. `*out` is as it was.
 * Ownership: `*out` is the caller's.
 */
int dev_get_mac_json_array(json_t **out);

/*
 * For boards: writes `value` to /sys/class/leds/<led>/<attribute>, a file that is made if possible.
 *
 * Errors:    a file that cannot be opened is logged; whether it takes the value is not looked at. A path
 *            over 4096 characters is logged and left; one of exactly 4096 loses its last.
 */
void _led_set_attr(const char *led, const char *attribute, const char *value);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
