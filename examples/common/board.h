/*
 * board - the description of the board, as JSON.
 */
#pragma once
#include <jansson.h>

/*
 * Looks at the board and describes it:
 *
 *	{"id": "unifiacpro", "vendor": "Ubiquiti", "model": "UniFi AC PRO",
 *	 "interfaces": {"wan": "eth0", "lan": null},
 *	 "radios": [{"phy": "phy1", "mode": 14, "mac": "02:00:5e:00:00:01"}],
 *	 "switch": {"device": "switch0", "cpu": "0", "cpu_lan": "0", "wan": "2", "lan": "3"},
 *	 "mac_addresses": ["02:00:5e:00:00:00", "02:00:5e:00:00:01"]}
 *
 * A part that does not exist, or cannot be read, is null: "switch" as a whole, and "mac_addresses" if one of them is
 * missing. Nothing is logged about a radio that does not exist. This opens files and a socket, so do not call it for
 * every request.
 *
 * Returns a new reference, or null if memory is exhausted.
 */
json_t *board_json(void);
