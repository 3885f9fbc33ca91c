// An access point with a 2.4 GHz radio in its system-on-chip, a 5 GHz radio on PCI, one Ethernet interface with a
// switch, and a white and a blue LED in its dome. It registers itself when the library is loaded.

#include <syslog.h>

#include "../lib/caldata.h"
#include "../lib/device.h"
#include "../lib/log.h"

// ---- LEDs ----

static constexpr char WHITE[] = "ubnt:white:dome";
static constexpr char BLUE[] = "ubnt:blue:dome";

static void led_off(const char *led)
{
	_led_set_attr(led, "trigger", "none");
	_led_set_attr(led, "brightness", "0");
}

static void led_on(const char *led)
{
	_led_set_attr(led, "trigger", "none");
	_led_set_attr(led, "brightness", "255");
}

static void led_blink(const char *led)
{
	_led_set_attr(led, "trigger", "timer");
}

// The kernel makes the files of the delays when the trigger is set.
static void led_blink_every(const char *led, const char *delay_ms)
{
	led_blink(led);
	_led_set_attr(led, "delay_on", delay_ms);
	_led_set_attr(led, "delay_off", delay_ms);
}

static int unifiacpro_led_set(unsigned int state)
{
	switch (state) {
	case DEV_LED_OFF:
		led_off(WHITE);
		led_off(BLUE);
		break;
	case DEV_LED_WHITE_BLINK:
		led_off(BLUE);
		led_blink(WHITE);
		break;
	case DEV_LED_BLUE_ON:
		led_off(WHITE);
		led_on(BLUE);
		break;
	case DEV_LED_WHITE_BLINK_FAST:
		led_off(BLUE);
		led_blink_every(WHITE, "100");
		break;
	case DEV_LED_WHITE_BLINK_SLOW:
		led_off(BLUE);
		led_blink_every(WHITE, "1000");
		break;
	case DEV_LED_BLUE_BLINK:
		led_off(WHITE);
		led_blink(BLUE);
		break;
	default:
		break;
	}
	return 0;
}

// ---- Start-up ----

struct calibration {
	const char *file; // below /lib/firmware, where the radio's driver asks for it
	unsigned int offset, length;
};

static constexpr calibration RADIOS[] = {
	{"ath9k-eeprom-ahb-18100000.wmac.bin", 4096, 16384},
	{"ath10k/cal-pci-0000:00:00.0.bin", 20480, 2116},
};

static int unifiacpro_init(void)
{
	for (const calibration &radio : RADIOS)
		if (caldata_export(radio.file, "EEPROM", radio.offset, radio.length) < 0)
			_log(LOG_ERR, "unable to export the %s\n", radio.file);
	return 0; // the board starts without that radio
}

// ---- The board ----

static constexpr device_switch unifiacpro_switch = {
	.dev = "switch0",
	.cpu = "0",
	.cpu_lan = nullptr,
	.wan = "2",
	.lan = "3",
};

static constexpr device unifiacpro_board = {
	.id = "unifiacpro",
	.vendor = "Ubiquiti",
	.name = "UniFi AC PRO",
	.sw = &unifiacpro_switch,
	.wan_iface = "eth0",
	.lan_iface = nullptr,
	.radio1_phy = "phy1", // compatibility, radios crosswise
	.radio1_mode = 14,
	.radio2_phy = "phy0",
	.radio2_mode = 25,
	.led_set = unifiacpro_led_set,
	.init = unifiacpro_init,
	.post_upgrade = nullptr,
};

// Runs when the library is loaded, before the constructors of programs that link it.
__attribute__((constructor)) static void install_board(void)
{
	device_set(&unifiacpro_board);
}
