/*
 * board - what there is to say about the board, as JSON.
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
 * What is not there, or cannot be read, is null: "switch" as a whole, and "mac_addresses" if one of them is
 * missing. Nothing is logged about an interface or a radio that is not there. It opens files and a socket:
 * not for every request.
 *
 * Returns a new reference, or null if memory is exhausted.
 */
json_t *board_json(void);
