#include "show.h"

#include <jansson.h>
#include <stddef.h>
#include <stdio.h>

#include "examples/common/board.h"
#include "lib/device.h"
#include "lib/net.h"

/* The first part of the board that has no address, or null. */
static const char *part_without_address(const json_t *radios)
{
	unsigned char wan_mac[6];
	size_t index;
	json_t *radio;

	if (iface_mac_binary(dev_wan_iface(), wan_mac))
		return dev_wan_iface();
	json_array_foreach(radios, index, radio)
		if (json_is_null(json_object_get(radio, "mac")))
			return json_string_value(json_object_get(radio, "phy"));
	return NULL;
}

/* Adds the reason why there are no addresses. */
static void add_error(json_t *board)
{
	const char *part = part_without_address(json_object_get(board, "radios"));
	json_object_set_new(board, "mac_addresses_error",
		part ? json_sprintf("the address of %s cannot be read", part) : json_string("out of memory"));
}

bool show_board(void)
{
	json_t *board = board_json();
	if (json_is_null(json_object_get(board, "mac_addresses")))
		add_error(board);
	bool shown = json_dumpf(board, stdout, JSON_INDENT(2)) == 0 && putchar('\n') != EOF;
	json_decref(board);
	return shown;
}
