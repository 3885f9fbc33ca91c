/*
 * The library logs an error for a radio whose address it cannot read. The examples also run on machines without
 * radios, so they ask only radios that exist.
 */
#define _POSIX_C_SOURCE 200809L

#include "examples/common/board.h"

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "lib/device.h"
#include "lib/net.h"

static bool radio_is_there(const char *phy)
{
	char path[64];
	snprintf(path, sizeof path, "/sys/class/ieee80211/%s/addresses", phy);
	return access(path, R_OK) == 0;
}

static json_t *radio_json(const char *phy, unsigned int mode)
{
	char *mac = radio_is_there(phy) ? get_radio_mac(phy) : NULL;
	json_t *text = json_string(mac); /* also null for bytes that are not UTF-8 */
	json_t *json = json_pack("{s:s, s:i, s:o?}", "phy", phy, "mode", (int)mode, "mac", text);
	free(mac);
	return json;
}

static json_t *radios_json(void)
{
	json_t *radios = json_array();
	if (dev_has_radio(0))
		json_array_append_new(radios, radio_json(dev_radio1_phy(), dev_radio1_mode()));
	if (dev_has_radio(1))
		json_array_append_new(radios, radio_json(dev_radio2_phy(), dev_radio2_mode()));
	return radios;
}

static json_t *switch_json(void)
{
	if (!dev_has_switch())
		return json_null();
	return json_pack("{s:s?, s:s?, s:s?, s:s?, s:s?}",                //
		"device", dev_switch_dev(),                               //
		"cpu", dev_switch_cpu(), "cpu_lan", dev_switch_cpu_lan(), //
		"wan", dev_switch_wan(), "lan", dev_switch_lan());
}

static bool radios_are_there(void)
{
	return (!dev_has_radio(0) || radio_is_there(dev_radio1_phy())) &&
	       (!dev_has_radio(1) || radio_is_there(dev_radio2_phy()));
}

static json_t *mac_addresses_json(void)
{
	json_t *addresses = json_null();
	if (radios_are_there())
		dev_get_mac_json_array(&addresses);
	return addresses;
}

json_t *board_json(void)
{
	return json_pack("{s:s?, s:s?, s:s?, s:{s:s, s:s?}, s:o, s:o, s:o}",  //
		"id", dev_id(), "vendor", dev_vendor(), "model", dev_name(),  //
		"interfaces", "wan", dev_wan_iface(), "lan", dev_lan_iface(), //
		"radios", radios_json(), "switch", switch_json(), "mac_addresses", mac_addresses_json());
}
